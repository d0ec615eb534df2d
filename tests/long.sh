#!/bin/sh
# tests/long.sh [MINUTES]
# What ./test.sh has no time for, on a bare Debian 12 as root: all faults, mutants and generated packages instead of a
# sample, every test under valgrind, the fuzzers for MINUTES (60 otherwise), how many mistakes the tests notice, and the
# benchmark.
# Takes some hours. Goes on after a failure and ends with the number of failures.
cd "$(dirname "$0")/.." || exit 1
failures=0

run()
{
    printf '== %s\n' "$*"
    "$@" || failures=$((failures + 1))
}

cmake/install-packages.sh valgrind python3 libbenchmark-dev libclang-rt-14-dev
run env CMSVERIFY_LONG=1 ./test.sh clang arm
run cmake --preset debug
run tests/analyze.sh tidy_pkgtool "$PWD/build/debug"
run valgrind -q --error-exitcode=1 --leak-check=full --suppressions=tests/valgrind.supp \
    build/clang/tests/cmsverify_tests --gtest_brief=1
run fuzz/run.sh "${1:-60}"
run tests/mutation/mutate.py build/mutation
run tests/mutation/planted.py build/planted
run cmake --preset bench
run cmake --build --preset bench --target cmsverify_bench
run build/bench/bench/cmsverify_bench
printf '%s failures\n' "$failures"
exit "$failures"
