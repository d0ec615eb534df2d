#!/bin/sh
# ./demo.sh [FILE]
# Signs, packs and checks FILE, or a generated image, and shows what the checker refuses. Does its own set-up on a bare
# Debian 12 as root: installs packages, makes a PKI with fresh keys, builds the checker for that root.
set -eu
file=${1:+$(realpath "$1")}
cd "$(dirname "$0")"

cmake/install-packages.sh cmake ninja-build pkgconf g++ libssl-dev libsafec-dev libcli11-dev libcurl4-openssl-dev \
    nlohmann-json3-dev openssl faketime
build=$PWD/build/demo
rm -rf "$build/pki"
demo/make-pki.sh "$build/pki"
cmake --preset release -B "$build" -DPKGTOOL=ON -DCMSVERIFY_CHECK_BINARIES=OFF \
    -DPKGCHECK_ROOT_CERT="$build/pki/root.pem" >/dev/null
cmake --build "$build" --target pkgcheck pkgtool

cd "$build"
PATH=$build:$build/pkgtool:$PATH
if [ -n "$file" ]; then
    cp "$file" image
else
    head -c 1048576 /dev/urandom >image
fi

say()
{
    printf '\n# %s\n' "$*"
}

# show COMMAND...: the command, what it prints and its exit status.
show()
{
    status=0
    printf '$ %s\n' "$*"
    "$@" || status=$?
    printf '  exit status %s\n' "$status"
}

# check PACKAGE REMARK
check()
{
    say "$2"
    show pkgcheck "$1"
}

# flip FILE OFFSET: the lowest bit of one byte.
flip()
{
    byte=$(od -An -tu1 -j "$2" -N 1 "$1")
    # shellcheck disable=SC2059 # the format is the byte
    printf "\\$(printf %03o $((byte ^ 1)))" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

signer="--cert pki/signer.pem --key pki/signer.key --chain pki/ca.pem"
crls="--crl pki/root.crl --crl pki/ca.crl"
pack="pkgtool pack --unchecked"
image="--payload image"

# shellcheck disable=SC2086 # the variables hold several words
{
    say "Sign and timestamp the image, pack it with a CRL of each CA, check it."
    show pkgtool sign image $signer --tsa-cert pki/tsa.pem --tsa-key pki/tsa.key \
        --tsa-time "$(date -u +%Y%m%d%H%M%SZ)" -o image.cms
    show pkgtool pack $image --cms image.cms $crls -o good.pkg
    show pkgcheck good.pkg

    cp good.pkg flipped.pkg
    flip flipped.pkg 352
    check flipped.pkg "One bit of the image flipped: refused."

    $pack $image --cms image.cms --crl pki/root.crl --crl pki/ca-revoked.crl -o revoked.pkg
    check revoked.pkg "The signer was revoked before the timestamp: refused. The code does not say so, pkgtool does."
    show pkgtool explain revoked.pkg

    pkgtool sign image $signer --no-timestamp -o unstamped.cms
    $pack $image --cms unstamped.cms $crls -o unstamped.pkg
    check unstamped.pkg "No timestamp: refused."

    head -c 351 good.pkg >short.pkg
    check short.pkg "Not even a header: refused."
    $pack $image --sub-file-count 2 -o two.pkg
    check two.pkg "Neither one nor three sub-files: refused."
    $pack --payload /dev/null --cms image.cms $crls -o empty.pkg
    check empty.pkg "A signature, but nothing that it signs: refused."
    $pack $image --sub-file-count 3 $crls -o no_cms.pkg
    check no_cms.pkg "Three sub-files and no signature: accepted, by design (see SECURITY.md)."
    pkgtool pack --unsigned $image -o one.pkg
    check one.pkg "One sub-file: accepted unsigned, by design (see SECURITY.md)."
}

say "No clock is read: the timestamp says when. The verdicts are the same at any time."
for date in "1970-01-02" "$(date +%F)" "2099-12-31"; do
    for package in good.pkg revoked.pkg; do
        status=0
        output=$(faketime "$date" pkgcheck $package) || status=$?
        printf '%s  %-12s exit status %s%s\n' "$date" $package "$status" "${output:+   $output}"
    done
done

say "good.pkg, the PKI (pki), pkgcheck and pkgtool (pkgtool/pkgtool) are in $build"
