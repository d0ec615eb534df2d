#!/bin/sh
# fuzz/run.sh MINUTES [--merge]
# Builds the fuzzers and runs all of them, for MINUTES together, on as many cores as there are (JOBS=N: on N). Each goes
# on from its seeds, its committed corpus and what earlier runs found, which is kept in build/fuzz/run. Prints a table,
# and ends with status 1 if there is a finding. With --merge the committed corpora are then replaced by the smallest ones
# that reach the same code; 0 minutes merge what earlier runs found.
set -eu
cd "$(dirname "$0")/.."

minutes=${1:?usage: fuzz/run.sh MINUTES [--merge]}
merge=${2-}
jobs=${JOBS:-$(nproc)}
run=build/fuzz/run

# Octets of the longest input: what the longest seeds need, and room to grow.
max_len()
{
    case $1 in
        extension) echo 256 ;;
        base64) echo 512 ;;
        certificate | crl | response) echo 3000 ;;
        *) echo 8500 ;;
    esac
}

libfuzzer() # TARGET OPTION-OR-DIRECTORY...
{
    target=$1
    shift
    # Full stacks of every allocation take a fifth of the time; a finding that is run by hand has them. What the library
    # releases is never handed out again, so only pkgtool's own memory needs a long quarantine.
    case $target in
        pkgtool | response) quarantine=16 ;;
        *) quarantine=1 ;;
    esac
    ASAN_OPTIONS=malloc_context_size=2:quarantine_size_mb=$quarantine:max_malloc_fill_size=0 \
    "build/fuzz/fuzz/fuzz_$target" -max_len="$(max_len "$target")" -timeout=10 -rss_limit_mb=1024 -malloc_limit_mb=16 \
        -close_fd_mask=1 "$@"
}

fuzz() # TARGET SECONDS
{
    libfuzzer "$1" -max_total_time="$2" -dict=fuzz/der.dict -print_final_stats=1 -artifact_prefix="$run/findings/$1." \
        "$run/corpus/$1" "fuzz/corpus/$1" "$run/seeds/$1" >"$run/log/$1" 2>&1 || cp "$run/log/$1" "$run/findings/$1.log"
}

# Every JOBS-th target, beginning with the LANE-th.
fuzz_lane() # LANE SECONDS
{
    number=0
    for name in $targets; do
        [ $((number % jobs)) -ne "$1" ] || fuzz "$name" "$2"
        number=$((number + 1))
    done
}

# Octets of the longest input that is kept, seeds aside: damaged signatures need no package around them.
max_kept()
{
    case $1 in
        package | strict | pkgtool) echo 2048 ;;
        *) max_len "$1" ;;
    esac
}

# Edges without their counts: an input more for every other count of rounds would be an input too many.
merge() # TARGET
{
    rm -rf "$run/merged" "$run/offered"
    mkdir "$run/merged" "$run/offered"
    for directory in "$run/corpus/$1" "fuzz/corpus/$1"; do
        find "$directory" -type f -size "-$(max_kept "$1")c" -exec cp -t "$run/offered" {} +
    done
    libfuzzer "$1" -merge=1 -use_counters=0 "$run/merged" "$run/offered" "$run/seeds/$1" \
        >"$run/log/$1.merge" 2>&1 || { cat "$run/log/$1.merge"; exit 1; }
    rm -rf "fuzz/corpus/$1"
    mv "$run/merged" "fuzz/corpus/$1"
}

cmake/install-packages.sh cmake ninja-build pkgconf g++ clang libclang-rt-14-dev libssl-dev libsafec-dev libgtest-dev \
    libcli11-dev libcurl4-openssl-dev nlohmann-json3-dev openssl
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

mkdir -p "$run/findings" "$run/log"
build/fuzz/fuzz/fuzz_seeds "$run/seeds"
targets=$(ls "$run/seeds")
count=$(echo "$targets" | wc -l)
for name in $targets; do mkdir -p "$run/corpus/$name" "fuzz/corpus/$name"; done

if [ "$minutes" -gt 0 ]; then
    rm -f "$run"/log/*
    rounds=$(((count + jobs - 1) / jobs))
    lane=0
    while [ "$lane" -lt "$jobs" ]; do
        fuzz_lane "$lane" $((minutes * 60 / rounds)) &
        lane=$((lane + 1))
    done
    wait
    awk -f fuzz/table.awk "$run"/log/*
fi

if [ -n "$(ls "$run/findings")" ]; then
    echo "Findings, each with its log:"
    ls "$run"/findings/*
    exit 1
fi

if [ "$merge" = --merge ]; then
    for name in $targets; do merge "$name"; done
    du -sh --apparent-size fuzz/corpus
fi
