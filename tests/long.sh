#!/bin/bash
# tests/long.sh [MINUTES]
# What ./test.sh has no time for, on a bare Debian 12 as root: all faults, mutants and generated packages instead of a
# sample, every test under valgrind, the fuzzers for MINUTES (60 otherwise), how many mistakes the tests notice, and the
# benchmark. Takes many hours; MUTANTS=500 tries so many mistakes instead of all. Goes on after a failure, prints what
# was tried beside what SECURITY.md states, and ends with the number of failures: a figure that is larger than what was
# run, or older than the code, is one.
set -o pipefail
cd "$(dirname "$0")/.." || exit 1
failures=0
logs=build/long
rm -rf "$logs"
mkdir -p "$logs"

run() # LOG COMMAND...
{
    log=$logs/$1
    shift
    printf '== %s\n' "$*"
    "$@" 2>&1 | tee -a "$log" || failures=$((failures + 1))
}

cmake/install-packages.sh valgrind python3 libbenchmark-dev libclang-rt-14-dev llvm chromium
run test env CMSVERIFY_LONG=1 CMSVERIFY_CASES=100000 CMSVERIFY_MODEL_PKIS=1000000 ./test.sh clang
cp build/clang/Testing/Temporary/LastTest.log "$logs/clang" # what the 32-bit run repeats is not counted twice
run test env CMSVERIFY_LONG=1 ./test.sh arm
run debug cmake --preset debug
run debug tests/analyze.sh tidy_pkgtool "$PWD/build/debug"
run debug cmake --build --preset debug --target cmsverify_tests explained pkgtool
run judges env CMSVERIFY_LONG=1 build/debug/tests/cmsverify_tests --gtest_filter='Judges.*'
run page tests/programs/page_test.sh build/debug/pkgtool/pkgtool build/pages
run explained env CMSVERIFY_LONG=1 build/debug/tests/explained
run valgrind valgrind -q --error-exitcode=1 --leak-check=full --suppressions=tests/sweeps/valgrind.supp \
    build/clang/tests/cmsverify_tests --gtest_brief=1
run fuzz fuzz/run.sh "${1:-60}"
run unreached fuzz/unreached.py build/unreached
run planted tests/sweeps/mutation/planted.py build/planted
run mutants tests/sweeps/mutation/mutate.py build/mutation --sample "${MUTANTS:-0}"
run bench cmake --preset bench
run bench cmake --build --preset bench --target cmsverify_bench
run bench build/bench/bench/cmsverify_bench
run figures tests/sweeps/figures.py "$logs/clang" "$logs/judges" "$logs/fuzz" "$logs/mutants"
printf '%s failures\n' "$failures"
exit "$failures"
