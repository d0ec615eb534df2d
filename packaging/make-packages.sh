#!/bin/sh
# packaging/make-packages.sh [ARCH...]
# Builds the Debian packages for this machine and for armhf, or for those named, into build/packages. Does its own
# set-up on a bare Debian 12 as root. The checker gets the root certificate that PKGCHECK_ROOT_CERT in the environment
# names.
set -eu
cd "$(dirname "$0")/.."
native=$(dpkg --print-architecture)
[ $# -gt 0 ] || set -- "$native" armhf
for arch; do
    case $arch in
    "$native" | armhf) ;;
    *)
        echo "packaging/make-packages.sh: for $native and armhf only, and not for $arch" >&2
        exit 2
        ;;
    esac
done

cmake/install-packages.sh cmake ninja-build pkgconf g++ dpkg-dev file libssl-dev libsafec-dev libcli11-dev \
    libcurl4-openssl-dev nlohmann-json3-dev openssl

for arch; do
    build=$PWD/build/packages/$arch
    if [ "$arch" = "$native" ]; then
        triplet=$(dpkg-architecture -q DEB_HOST_MULTIARCH)
        cmake --preset release -B "$build" -DCMSVERIFY_BUILD_PKGTOOL=ON
    else
        triplet=arm-linux-gnueabihf
        cmake/install-packages.sh g++-arm-linux-gnueabihf libc6-dev-armhf-cross
        cmake/arm-sysroot.sh "$build/sysroot"
        cmake --preset arm -B "$build" -DCMSVERIFY_BUILD_TESTS=OFF -DCMSVERIFY_BUILD_EXAMPLES=OFF
    fi
    cmake -B "$build" -DCMSVERIFY_CHECK_BINARIES=OFF -DBUILD_SHARED_LIBS=ON -DCMAKE_INSTALL_PREFIX=/usr \
        -DCMAKE_INSTALL_LIBDIR="lib/$triplet" -DCPACK_DEBIAN_PACKAGE_ARCHITECTURE="$arch" \
        -DPKGCHECK_ROOT_CERT="${PKGCHECK_ROOT_CERT:-}"
    cmake --build "$build"
    (cd "$build" && cpack -B "$OLDPWD/build/packages")
done
rm -rf build/packages/_CPack_Packages
