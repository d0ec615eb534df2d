# Reads CTest's logs (build/PRESET/Testing/Temporary/LastTest.log) and prints the ten tests that took longest and the
# closing line of ./test.sh. A GoogleTest program counts case by case, any other test as one; a program that dies
# between two cases counts as one failure more.

/^[0-9]+\/[0-9]+ Testing: /            { program = $3 }
/^\[       OK \] /                     { passed++; cases++ }
/^\[  SKIPPED \] .*\([0-9]+ ms\)$/     { skipped++; cases++ }
/^\[  FAILED  \] .*\([0-9]+ ms\)$/     { failed++; cases++; blamed = 1 }
/^\[  .*\] .* \([0-9]+ ms\)$/          { took(substr($0, 14), substr($(NF - 1), 2) / 1000) }
/^Command: ""$/                        { failed++; blamed = 1 } # the program is not there; CTest logs "Test Passed."
/^Test time = /                        { if (!cases) took(program, $4) }
/^Test Passed\.$/                      { ended = 1 }
/^".*" end time: /                     { finish(ended); ended = cases = blamed = 0 }

function took(test, seconds)
{
    sub(/ \(.*/, "", test)
    split(FILENAME, directories, "/")
    times[test " (" directories[2] ")"] = seconds + 0
}

function finish(good)
{
    if (!good && !blamed) failed++
    if (good && !blamed && !cases) passed++
}

function printLongest(count,    test, longest)
{
    for (; count > 0; count--) {
        longest = ""
        for (test in times) if (longest == "" || times[test] > times[longest]) longest = test
        if (longest == "") return
        printf "%8.1f s  %s\n", times[longest], longest
        delete times[longest]
    }
}

END {
    print "The ten tests that took longest:"
    printLongest(10)
    printf "%d passed, %d failed, %d skipped\n", passed, failed, skipped
    exit failed > 0 || passed == 0
}
