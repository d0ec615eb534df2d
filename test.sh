#!/bin/bash
# ./test.sh [PRESET...]
# Builds and tests everything on a bare Debian 12 as root: under sanitizers, with clang, the release build with checks
# of the built files, and for 32-bit ARM under qemu. With arguments, those presets only. Needs neither root nor a network
# once the packages are there; ARM needs a network for its own. The last line counts the tests.
set -euo pipefail
cd "$(dirname "$0")"
[ $# -gt 0 ] || set -- debug clang release arm
usage="usage: ./test.sh [PRESET...], of debug clang release arm coverage"
case $1 in -h | --help) echo "$usage"; exit ;; esac
for preset; do
    grep -qE "\"name\": \"$preset\", .*\"configurePreset\"" CMakePresets.json || {
        echo "./test.sh: no such preset: $preset; $usage" >&2
        exit 2
    }
done

echo "On a bare Debian 12 this installs some 180 packages (320 MB to download, 1.5 GB on disk); all presets take about 20"
echo "minutes on two cores."
cmake/install-packages.sh cmake ninja-build pkgconf g++ clang libssl-dev libsafec-dev libgtest-dev googletest \
    g++-arm-linux-gnueabihf libc6-dev-armhf-cross qemu-user-static openssl strace faketime \
    clang-format clang-tidy cppcheck \
    libcli11-dev libcurl4-openssl-dev nlohmann-json3-dev gnutls-bin softhsm2 libengine-pkcs11-openssl python3 \
    libmbedtls-dev mandoc zsh python3-jsonschema dpkg-dev file parallel valgrind

status=0
logs=()
for preset; do
    echo "== $preset"
    SECONDS=0
    [ "$preset" != arm ] ||
        cmake/progress.sh "Fetching ARM libraries" build/arm/sysroot.log cmake/arm-sysroot.sh build/arm/sysroot
    cmake --preset "$preset" >/dev/null
    cmake/progress.sh "Building" "build/$preset/build.log" cmake --build --preset "$preset"

    log=build/$preset/Testing/Temporary/LastTest.log
    rm -f "$log"
    # A line for each program of tests. What failed is shown whole.
    ctest --preset "$preset" -j "$(nproc)" | tee "build/$preset/ctest.log" |
        grep --line-buffered '^ *[0-9]*/[0-9]* Test' || {
        status=1
        grep -vE '^\[ (RUN  |      OK|------)' "build/$preset/ctest.log"
    }
    logs+=("$log")
    echo "$preset took $SECONDS s"
done

awk -f cmake/count-tests.awk "${logs[@]}" || status=1
exit $status
