#!/bin/sh
# demo.sh looks at its argument before anything else, and what is missing is said in one line before apt is asked.
set -eu
source=$(cd "$(dirname "$0")/../.." && pwd)
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
failed=0

# says STATUS TEXT COMMAND...: the last line but the usage.
says()
{
    expected="$1 $2"
    shift 2
    status=0
    "$@" >out 2>&1 || status=$?
    said="$status $(head -n 1 out | sed "s/[0-9]* s\$/N s/")"
    [ "$said" = "$expected" ] || { echo "$*: '$said' instead of '$expected'"; failed=1; }
}

: >empty
says 0 "usage: ./demo.sh [FILE]" "$source/demo.sh" --help
says 2 "./demo.sh: no such file: missing" "$source/demo.sh" missing
says 2 "./demo.sh: not a file: ." "$source/demo.sh" .
says 2 "./demo.sh: an empty file, which has nothing to sign: empty" "$source/demo.sh" empty
says 2 "./demo.sh: no such option: --nope (a file of that name is ./--nope)" "$source/demo.sh" --nope
says 2 "./demo.sh: one file at most" "$source/demo.sh" empty empty
says 0 "usage: ./test.sh [PRESET...], of debug clang release arm coverage" "$source/test.sh" --help
says 2 "./test.sh: no such preset: nope; usage: ./test.sh [PRESET...], of debug clang release arm coverage" \
    "$source/test.sh" nope

says 0 "tests/long.sh [STAGE...]" "$source/tests/long.sh" --help
says 2 "tests/long.sh: no such stage: nope; stages: sweeps arm analysis judges page explained valgrind fuzz unreached\
 planted mutants bench" "$source/tests/long.sh" nope

says 2 "packaging/make-packages.sh: for $(dpkg --print-architecture) and armhf only, and not for nope" \
    "$source/packaging/make-packages.sh" nope

# A machine that lacks a package, with a user who may not install it, and then with a root without a network.
mkdir bin project
cp -R "$source/cmake" project
cat >bin/dpkg-query <<'TEXT'
#!/bin/sh
[ "$3" = missing ] || echo installed
TEXT
cat >bin/apt-get <<'TEXT'
#!/bin/sh
case "$*" in
    *NoLocking*)
        echo "1 upgraded, 77 newly installed, 0 to remove and 0 not upgraded."
        echo "Need to get 11.5 MB/95.2 MB of archives."
        echo "After this operation, 375 MB of additional disk space will be used."
        ;;
    *) echo "E: Failed to fetch"; exit 100 ;;
esac
TEXT
cat >bin/id <<'TEXT'
#!/bin/sh
echo "$USER_ID"
TEXT
chmod +x bin/*
PATH=$dir/bin:$PATH
by_hand="apt-get install --no-install-recommends missing"
says 0 "" project/cmake/install-packages.sh there
says 1 "Run this once as root; after that any user will do, without a network: $by_hand (78 packages, 11.5 MB to \
download, 375 MB on disk)" env USER_ID=1000 project/cmake/install-packages.sh there missing
says 1 "Debian packages are missing (78 packages, 11.5 MB to download, 375 MB on disk): missing" \
    env USER_ID=0 project/cmake/install-packages.sh there missing
[ "$(tail -n 1 out)" = "Nothing was built. With a network, as root: apt-get update && $by_hand" ] ||
    { cat out; failed=1; }

# Progress in steps, the whole output in the log, and the status of the command.
cat >steps <<'TEXT'
for i in 1 2 3 4; do echo "[$i/4] step"; done
exit "$1"
TEXT
says 0 "Steps (log: logs/steps), percent done: 10 20 30 40 50 60 70 80 90 100; N s" \
    "$source/cmake/progress.sh" Steps logs/steps sh steps 0
[ "$(wc -l <logs/steps)" = 4 ] || { echo "no log"; failed=1; }
says 7 "Steps (log: logs/steps), percent done: 10 20 30 40 50 60 70 80 90 100; failed after N s" \
    "$source/cmake/progress.sh" Steps logs/steps sh steps 7
exit $failed
