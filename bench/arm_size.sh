#!/bin/sh
# Code and tables, in octets, of the library without the default callbacks on 32-bit ARM with -Os: linked as a whole
# with link-time optimization, hardened as shipped and without PIC and stack protector, and the sum of the objects of
# the latter.
set -eu
source=$(cd "$(dirname "$0")/.." && pwd)
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
triplet=arm-linux-gnueabihf
common="-std=c++17 -Os -DNDEBUG -fsigned-char -fno-exceptions -fno-rtti -fno-strict-aliasing -D_FILE_OFFSET_BITS=64
    -fvisibility=hidden -fvisibility-inlines-hidden -Wno-psabi -ffile-prefix-map=$source/="
hardened="-fPIC -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2"
plain="-mthumb -march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -ffunction-sections -fdata-sections
    -fno-pic -fno-pie -fno-stack-protector"

# compile NAME FLAG...: objects in $dir/NAME
compile()
{
    mkdir "$dir/$1"
    out=$dir/$1
    shift
    for file in "$source"/cmsverify/*.cpp; do
        case $file in
        *_callback_*.cpp | *_witness.cpp) ;;
        *) $triplet-g++ $common "$@" -c "$file" -o "$out/$(basename "$file" .cpp).o" ;;
        esac
    done
}

# whole WHAT FLAG...: the size of the public functions with all that they need
whole()
{
    what=$1
    shift
    compile "$what" -flto "$@"
    $triplet-g++ -Os -flto "$@" -shared -nostdlib -Wl,--gc-sections,-z,notext -o "$dir/whole" "$dir/$what"/*.o
    $triplet-size -A "$dir/whole" | awk -v what="$what" '/^\.(plt|text|rodata|data\.rel\.ro|got) / {sum += $2}
        END {print "linked as a whole, " what ": " sum}'
}

whole hardened $hardened
whole plain $plain
compile objects $plain
$triplet-size -t "$dir"/objects/*.o | awk 'END {print "objects, plain: " $1 + $2}'
