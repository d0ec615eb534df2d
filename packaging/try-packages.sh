#!/bin/sh
# packaging/try-packages.sh ARCH [SIGNED]
# As root: installs the packages of ARCH from build/packages in a root of their own, with what they depend on and
# nothing else, runs the programs there, and prints what the packages bring in. The checker has to accept the firmware
# package SIGNED, if there is one. For this machine's architecture the root is a Debian made by debootstrap, and apt
# installs into it. For another one apt chooses the packages, which are unpacked, and qemu runs them.
set -eu
arch=$1
signed=${2:+$(realpath "$2")}
cd "$(dirname "$0")/.."
packages=$PWD/build/packages
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
mkdir "$root"

# The programs and the library, not what is for developers.
set --
for name in libcmsverify1 pkgcheck pkgtool; do
    for package in "$packages/${name}"_*_"$arch.deb"; do
        [ ! -e "$package" ] || set -- "$@" "$package"
    done
done
[ $# -gt 0 ] || { echo "no packages for $arch in $packages"; exit 1; }

for package in "$@" "$packages"/libcmsverify-dev_*_"$arch.deb"; do
    echo "== $(basename "$package"), $(stat -c %s "$package") octets"
    dpkg-deb -f "$package" Depends Installed-Size
    dpkg-deb -c "$package" | awk '$1 !~ /^d/ { print "  " $3, $6, $7, $8 }'
done

if [ "$arch" = "$(dpkg --print-architecture)" ]; then
    cmake/install-packages.sh debootstrap
    debootstrap --variant=minbase bookworm "$root" >"$work/log" 2>&1 || { tail "$work/log"; exit 1; }
    cp "$@" "$root/tmp"
    chroot "$root" sh -c 'apt-get -q -y --no-install-recommends install /tmp/*.deb'
    runner=
else
    cmake/install-packages.sh qemu-user-static
    mkdir -p "$work/lists/partial" "$work/cache/archives/partial"
    apt()
    {
        apt-get -q -y --no-install-recommends -o APT::Architecture="$arch" -o APT::Architectures="$arch" \
            -o APT::Sandbox::User=root -o Dir::State::Lists="$work/lists" -o Dir::State::status=/dev/null \
            -o Dir::Cache="$work/cache" "$@"
    }
    apt update || echo "Some index did not load; going on with those that did." >&2
    apt --download-only install "$@"
    for package in "$work"/cache/archives/*.deb "$@"; do
        dpkg -x "$package" "$root"
    done
    cp "$(command -v qemu-arm-static)" "$root/qemu"
    runner=/qemu
fi

# expect STATUS TEXT COMMAND...: what a program in the root does.
expect()
{
    expected="$1 $2"
    shift 2
    status=0
    said=$(chroot "$root" $runner "$@" 2>&1) || status=$?
    said="$status $(echo "$said" | head -n 1)"
    [ "$said" = "$expected" ] || { echo "$*: '$said' instead of '$expected'"; exit 1; }
    echo "$*: $said"
}

# A package of three sub-files that all are the same zeros: as far as the library, which finds no CRL.
word() { printf '\000\000\000%b' "\\0$1"; }
{
    word 0; word 0; word 0; word 0; word 3
    for type in '\000\000\000\001' '\020\000\000\001' '\020\000\000\002'; do
        printf '%b' "$type"; word 0; word 144
    done
    head -c 396 /dev/zero
} >"$root/tmp.pkg"

expect 234 "Invalid arg count" /usr/bin/pkgcheck
expect 255 "Check cms file fail for file(err 0x88200102)" /usr/bin/pkgcheck /tmp.pkg
if [ -n "$signed" ]; then
    cp "$signed" "$root/signed.pkg"
    expect 0 "" /usr/bin/pkgcheck /signed.pkg
fi
[ ! -e "$root/usr/bin/pkgtool" ] ||
    expect 0 "Signs, packs and inspects firmware packages for pkgcheck." /usr/bin/pkgtool --help
echo "$arch: good"
