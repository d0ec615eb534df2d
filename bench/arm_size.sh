#!/bin/sh
# Code and tables, in octets, of the library without the default callbacks on 32-bit ARM with -Os: linked as a whole
# with link-time optimization and hardened as shipped, and the sum of its objects without PIC and stack protector.
set -eu
source=$(cd "$(dirname "$0")/.." && pwd)
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
triplet=arm-linux-gnueabihf
common="-std=c++17 -Os -DNDEBUG -fsigned-char -fno-exceptions -fno-rtti -fno-strict-aliasing -D_FILE_OFFSET_BITS=64
    -fvisibility=hidden -fvisibility-inlines-hidden -Wno-psabi -ffile-prefix-map=$source/="

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

compile hardened -flto -fPIC -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2
$triplet-g++ -Os -fPIC -flto -shared -nostdlib -Wl,--gc-sections -o "$dir/whole" "$dir"/hardened/*.o
$triplet-size -A "$dir/whole" | awk '/^\.(plt|text|rodata|data\.rel\.ro|got) / {sum += $2}
    END {print "linked as a whole, hardened: " sum}'
compile plain -mthumb -march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -ffunction-sections -fdata-sections \
    -fno-pic -fno-pie -fno-stack-protector
$triplet-size -t "$dir"/plain/*.o | awk 'END {print "objects, plain: " $1 + $2}'
