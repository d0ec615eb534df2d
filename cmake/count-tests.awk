# Reads CTest's logs (Testing/Temporary/LastTest.log) and prints the closing line of ./test.sh. A GoogleTest program
# counts case by case, any other test as one; a program that dies between two cases counts as one failure more.

/^\[       OK \] /                     { passed++; cases++ }
/^\[  SKIPPED \] .*\([0-9]+ ms\)$/     { skipped++; cases++ }
/^\[  FAILED  \] .*\([0-9]+ ms\)$/     { failed++; cases++; blamed = 1 }
/^Test Passed\.$/                      { ended = 1 }
/^".*" end time: /                     { finish(ended); ended = cases = blamed = 0 }

function finish(good)
{
    if (!good && !blamed) failed++
    if (good && !cases) passed++
}

END {
    printf "%d passed, %d failed%s\n", passed, failed, skipped ? ", " skipped " skipped" : ""
    exit failed > 0 || passed == 0
}
