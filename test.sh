#!/bin/sh
# ./test.sh [PRESET...]
# Builds and tests everything on a bare Debian 12 as root: under sanitizers, with clang, the release build with checks
# of the built files, and for 32-bit ARM under qemu. With arguments, those presets only.
set -eu
cd "$(dirname "$0")"
[ $# -gt 0 ] || set -- debug clang release arm

cmake/install-packages.sh cmake ninja-build pkgconf g++ clang libssl-dev libsafec-dev libgtest-dev googletest \
    g++-arm-linux-gnueabihf libc6-dev-armhf-cross qemu-user-static openssl strace faketime \
    clang-format clang-tidy cppcheck \
    libcli11-dev libcurl4-openssl-dev nlohmann-json3-dev gnutls-bin softhsm2 libengine-pkcs11-openssl python3 \
    libmbedtls-dev mandoc dpkg-dev file parallel

status=0
logs=
for preset; do
    echo "== $preset"
    start=$(date +%s)
    [ "$preset" != arm ] || cmake/arm-sysroot.sh build/arm/sysroot
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"

    log=build/$preset/Testing/Temporary/LastTest.log
    rm -f "$log"
    ctest --preset "$preset" -j "$(nproc)" >"build/$preset/ctest.log" || { status=1; cat "build/$preset/ctest.log"; }
    logs="$logs $log"
    echo "$preset took $(($(date +%s) - start)) s"
done

# shellcheck disable=SC2086 # one word for each log
awk -f cmake/count-tests.awk $logs || status=1
exit $status
