#!/bin/bash
# tests/long.sh [STAGE...]
# What ./test.sh has no time for, on a bare Debian 12 as root, in stages of some minutes to some hours:
#   sweeps     every test with clang: all faults, damage and small inputs, 100,000 packages and 1,000,000 PKIs
#   arm        every test on 32-bit ARM in its long form, but for the small inputs, which alone need hours under qemu
#   analysis   clang-tidy over pkgtool         judges     four judges of one package
#   explained  the reasons that pkgtool gives  page      its pages in a browser
#   valgrind   every test under valgrind       planted    mistakes in what the PKI remembers
#   fuzz       all fuzzers, for MINUTES=60     unreached  branches that no corpus reaches
#   mutants    mistakes in the code that no test notices; MUTANTS=500 draws so many of all
#   bench      the benchmark beside libcrypto
# Runs the stages that are named, or else those that have not passed yet for this library and checker, and goes on after
# a failure. Their logs lie in build/long. Then it prints what was tried beside what SECURITY.md states: a figure that
# is larger than what was run, or older than the code, is a failure, too. The status is the number of failures.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
all="sweeps arm analysis judges page explained valgrind fuzz unreached planted mutants bench"
case ${1-} in -h | --help) sed -n '2,/^set/s/^# \?//p' "$0"; exit ;; esac
for stage; do
    [[ " $all " == *" $stage "* ]] || { echo "tests/long.sh: no such stage: $stage; stages: $all" >&2; exit 2; }
done
git diff --quiet HEAD -- cmsverify tool || {
    echo "tests/long.sh: commit cmsverify and tool first: figures belong to one state of them" >&2
    exit 2
}
logs=build/long/$(git rev-parse HEAD:cmsverify HEAD:tool | cut -c1-10 | paste -sd-) || exit
mkdir -p "$logs"

sweeps() # ends with what each test tried
{
    CMSVERIFY_LONG=1 CMSVERIFY_CASES=100000 CMSVERIFY_MODEL_PKIS=1000000 ./test.sh clang
    local status=$?
    cat build/clang/Testing/Temporary/LastTest.log
    return $status
}
arm() { CMSVERIFY_LONG=1 GTEST_FILTER='-SmallInputs.*' ./test.sh arm; }
debug_build() { cmake --preset debug && cmake --build --preset debug --target "$@"; }
analysis() { debug_build pkgtool && tests/analyze.sh tidy_pkgtool "$PWD/build/debug"; }
judges()
{
    debug_build cmsverify_tests && CMSVERIFY_LONG=1 build/debug/tests/cmsverify_tests --gtest_filter='Judges.*'
}
page() { debug_build pkgtool && tests/programs/page_test.sh build/debug/pkgtool/pkgtool build/pages; }
explained() { debug_build explained && CMSVERIFY_LONG=1 build/debug/tests/explained; }
valgrind() # without the test that looks at the stack of a thread that has ended
{
    cmake --preset clang && cmake --build --preset clang &&
        command valgrind -q --error-exitcode=1 --leak-check=full --suppressions=tests/sweeps/valgrind.supp \
            build/clang/tests/cmsverify_tests --gtest_brief=1 --gtest_filter='-StackWork.*'
}
fuzz() { fuzz/run.sh "${MINUTES:-60}"; }
unreached() { fuzz/unreached.py build/unreached; }
planted() { tests/sweeps/mutation/planted.py build/planted; }
mutants() { tests/sweeps/mutation/mutate.py build/mutation --sample "${MUTANTS:-0}"; }
bench()
{
    cmake --preset bench && cmake --build --preset bench --target cmsverify_bench && build/bench/bench/cmsverify_bench
}

cmake/install-packages.sh valgrind python3 libbenchmark-dev libclang-rt-14-dev llvm chromium || exit
failures=0
for stage in ${*:-$all}; do
    if [ $# -eq 0 ] && [ -e "$logs/$stage.passed" ]; then continue; fi
    printf '== %s\n' "$stage"
    SECONDS=0
    rm -f "$logs/$stage.passed"
    if $stage 2>&1 | tee "$logs/$stage"; then
        echo "$((SECONDS / 60)) min" >"$logs/$stage.passed"
    else
        failures=$((failures + 1))
    fi
done

for stage in $all; do
    passed="not passed"
    [ ! -e "$logs/$stage.passed" ] || passed="passed in $(cat "$logs/$stage.passed")"
    printf '%-10s %s\n' "$stage" "$passed"
done
# What the 32-bit run repeats is not counted twice.
counted=()
for stage in sweeps judges fuzz mutants; do
    [ ! -e "$logs/$stage" ] || counted+=("$logs/$stage")
done
tests/sweeps/figures.py "${counted[@]}" || failures=$((failures + 1))
printf '%s failures\n' "$failures"
exit "$failures"
