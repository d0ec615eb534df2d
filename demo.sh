#!/bin/sh
# Signs, packs and checks an image, and shows what the checker refuses; see usage below. Does its own set-up on a bare
# Debian 12 as root, and needs neither root nor a network once the packages are there.
set -eu

usage()
{
    cat <<'TEXT'
usage: ./demo.sh [FILE]

Makes a PKI with fresh keys, builds the checker for its root, signs, stamps and packs FILE, or a generated image, and
shows what the checker accepts and refuses. Ends with status 0 if every verdict is the expected one.
TEXT
}

refuse()
{
    printf './demo.sh: %s\n' "$1" >&2
    usage >&2
    exit 2
}

[ $# -le 1 ] || refuse "one file at most"
case ${1-} in
    -h | --help)
        usage
        exit
        ;;
    -*) refuse "no such option: $1 (a file of that name is ./$1)" ;;
esac
file=
if [ $# = 1 ]; then
    [ -e "$1" ] || refuse "no such file: $1"
    [ -f "$1" ] || refuse "not a file: $1"
    [ -r "$1" ] || refuse "may not be read: $1"
    [ -s "$1" ] || refuse "an empty file, which has nothing to sign: $1"
    file=$(realpath "$1")
fi
cd "$(dirname "$0")"

echo "On a bare Debian 12 this installs some 80 packages (95 MB to download, 375 MB on disk) and builds for about two"
echo "minutes on two cores; later runs take seconds."
cmake/install-packages.sh cmake ninja-build pkgconf g++ libssl-dev libsafec-dev libcli11-dev libcurl4-openssl-dev \
    nlohmann-json3-dev openssl faketime
build=$PWD/build/demo
# make ROOT TITLE TARGET...
make()
{
    cmake --preset release -B "$build" -DCMSVERIFY_BUILD_PKGTOOL=ON -DCMSVERIFY_CHECK_BINARIES=OFF -DPKGCHECK_ROOT_CERT="$1" >/dev/null
    title=$2
    shift 2
    cmake/progress.sh "$title" "$build/build.log" cmake --build "$build" --target "$@"
}
make "$PWD/tool/placeholder_root.der" "Building pkgtool" pkgtool
rm -rf "$build/pki"
"$build/pkgtool/pkgtool" pki new "$build/pki" --name Demo >/dev/null
make "$build/pki/root.pem" "Building pkgcheck for a root of its own" pkgcheck pkgtool

cd "$build"
PATH=$build:$build/pkgtool:$PATH
rm -f ./*.pkg ./*.cms image
if [ -n "$file" ]; then
    cp "$file" image
else
    head -c 1048576 /dev/urandom >image
fi
verdicts=0
unexpected=0

say()
{
    printf '\n# %s\n' "$*"
}

# judge EXPECTED STATUS
judge()
{
    verdicts=$((verdicts + 1))
    [ "$1" = "$2" ] && return
    unexpected=$((unexpected + 1))
    printf '  UNEXPECTED: %s was to come\n' "$1"
}

# show STATUS COMMAND...: the command, what it prints and its exit status, which has to be this one.
show()
{
    expected=$1
    shift
    status=0
    printf '$ %s\n' "$*"
    "$@" || status=$?
    meaning=
    case $1:$status in
        pkgcheck:0) meaning=": accepted" ;;
        pkgcheck:*) meaning=": refused" ;;
    esac
    printf '  exit status %s%s\n' "$status" "$meaning"
    judge "$expected" "$status"
}

# flip FILE OFFSET: the lowest bit of one byte.
flip()
{
    byte=$(od -An -tu1 -j "$2" -N 1 "$1")
    # shellcheck disable=SC2059 # the format is the byte
    printf "\\$(printf %03o $((byte ^ 1)))" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

signer="--cert pki/signer.pem --key pki/signer.key --chain pki/ca.pem"
stamp="--tsa-cert pki/tsa.pem --tsa-key pki/tsa.key --tsa-chain pki/tsa-ca.pem"
crls="--crl pki/root.crl --crl pki/ca.crl --crl pki/tsa-ca.crl"
pack="pkgtool pack --unchecked"
image="--payload image"

# shellcheck disable=SC2086 # the variables hold several words
{
    say "Sign and timestamp the image, pack it with a CRL of each CA, check it: accepted. The checker is silent then."
    show 0 pkgtool sign image $signer $stamp -o image.cms
    show 0 pkgtool pack $image --cms image.cms $crls -o good.pkg
    show 0 pkgcheck good.pkg

    say "The same in one step, with what the PKI says of itself: accepted."
    show 0 pkgtool release image --pki pki -o release.pkg
    show 0 pkgcheck release.pkg

    say "One bit of the image flipped: refused."
    cp good.pkg flipped.pkg
    flip flipped.pkg 352
    show 255 pkgcheck flipped.pkg

    say "Signed by a signer who was revoked before: refused. The code does not say so, pkgtool does."
    show 0 pkgtool pki revoke pki signer
    pkgtool sign image $signer $stamp -o revoked.cms
    $pack $image --cms revoked.cms $crls -o revoked.pkg
    show 255 pkgcheck revoked.pkg
    show 1 pkgtool explain revoked.pkg

    say "No timestamp: refused."
    pkgtool sign image $signer --no-timestamp -o unstamped.cms
    $pack $image --cms unstamped.cms $crls -o unstamped.pkg
    show 255 pkgcheck unstamped.pkg

    say "Not even a header: refused."
    head -c 351 good.pkg >short.pkg
    show 255 pkgcheck short.pkg

    say "Neither one nor three sub-files: refused."
    $pack $image --sub-file-count 2 -o two.pkg
    show 254 pkgcheck two.pkg

    say "A signature, but nothing that it signs: refused."
    $pack --payload /dev/null --cms image.cms $crls -o empty.pkg
    show 255 pkgcheck empty.pkg

    say "Three sub-files and no signature: accepted, by design (see SECURITY.md)."
    $pack $image --sub-file-count 3 $crls -o no_cms.pkg
    show 0 pkgcheck no_cms.pkg

    say "One sub-file: accepted unsigned, by design (see SECURITY.md)."
    pkgtool pack --unsigned $image -o one.pkg
    show 0 pkgcheck one.pkg
}

say "No clock is read: the timestamp says when. The verdicts are the same at any time."
for date in "1970-01-02" "$(date +%F)" "2099-12-31"; do
    for package in good:0 revoked:255; do
        status=0
        output=$(faketime "$date" pkgcheck "${package%:*}.pkg") || status=$?
        printf '%s  %-12s exit status %s%s\n' "$date" "${package%:*}.pkg" "$status" "${output:+   $output}"
        judge "${package#*:}" "$status"
    done
done

say "Where everything is: $build"
echo "good.pkg and the others, the PKI (pki), pkgcheck, and pkgtool (pkgtool/pkgtool)."
echo "Read next: docs/signing.md to sign with keys of your own, docs/pkgtool.md to find out why a package is refused,"
echo "SECURITY.md for what acceptance does not promise."
[ $unexpected = 0 ] || { echo "$unexpected of $verdicts verdicts are not the expected ones."; exit 1; }
echo "All $verdicts verdicts are the expected ones."
