#!/bin/sh
# check_binary.sh CHECK ARGUMENT...
# One check of the built files; fails with the offending lines. NM and READELF name the tools of the target.
set -eu
: "${NM:=nm}" "${READELF:=readelf}"
export LC_ALL=C

# refuse TEXT LINES: fails when there are any lines.
refuse()
{
    [ -z "$2" ] || { printf '%s:\n%s\n' "$1" "$2"; exit 1; }
}

# core_calls_nothing_else ARCHIVE: all modules but the default callbacks leave undefined only what the compiler emits
# by itself.
core_calls_nothing_else()
{
    core=$(cd "$(dirname "$1")" && "$NM" -AP "$(basename "$1")" | grep -vE '\[(pelnic_callback_|mbedtls_crypto)')
    compiler='memcpy|memset|memmove|memcmp|__stack_chk_(fail|guard)|_GLOBAL_OFFSET_TABLE_|__aeabi_[a-z0-9_]+'
    refuse "not the core's own" "$(echo "$core" | awk -v allowed="^($compiler)\$" '
        $3 ~ /^[Uwv]$/ { used[$2] = $1 }
        $3 !~ /^[Uwv]$/ { own[$2] }
        END { for (name in used) if (!(name in own) && name !~ allowed) print used[name], name }')"
}

# no_constructors OBJECT...: nothing runs before main.
no_constructors()
{
    sections=$("$READELF" -SW "$@")
    refuse "code that runs at start-up" "$(echo "$sections" | awk '
        /^File: / { file = $2 }
        /\.(init_array|preinit_array|ctors)/ { print file }')"
}

# hardened PROGRAM
hardened()
{
    facts=$("$READELF" -hldW --dyn-syms "$1")
    for fact in 'Type: +DYN' GNU_RELRO 'FLAGS.* (BIND_)?NOW' 'GNU_STACK .* RW +0x' __stack_chk_fail '__[a-z]+_chk@'; do
        echo "$facts" | grep -qE "$fact" || { echo "missing: $fact"; exit 1; }
    done
}

# keeps_to_itself PROGRAM: asks for no variable, locale, clock, network, process or further library.
keeps_to_itself()
{
    variables='(secure_)?getenv|environ|set_?env|putenv|(set|new|use)locale|nl_langinfo'
    clocks='time|gettimeofday|clock(_gettime)?|(local|gm|mk)time(_r)?|tzset|getrandom'
    others='socket|connect|send(to|msg)?|getaddrinfo|gethostby.*|fork|vfork|clone|exec[lv].*|system|popen|dlopen'
    imported=$("$NM" -D --undefined-only "$1" | awk '{ print $NF }' | sed 's/@.*//; s/^__//; s/64$//')
    [ -n "$imported" ] || { echo "nothing is imported"; exit 1; }
    refuse "asks for more than it needs" "$(echo "$imported" | grep -xE "$variables|$clocks|$others")"
}

words()
{
    tr ' ' '\n' | sort | xargs
}

# libraries "NAME..." COMMAND...: besides the loader, the program loads just these, directly or not.
libraries()
{
    expected=$(echo "$1" | words)
    shift
    loaded=$(LD_TRACE_LOADED_OBJECTS=1 "$@")
    found=$(echo "$loaded" | awk '{ print $1 }' | sed 's|.*/||; s|\.so.*||' | grep -vE '^(linux-vdso|ld-linux.*)$' | words)
    [ "$found" = "$expected" ] || { echo "loads $found instead of $expected"; exit 1; }
}

# exports LIST LIBRARY: the shared library offers the symbols of the list and no other.
exports()
{
    symbols=$("$NM" -DP --defined-only "$2")
    offered=$(echo "$symbols" | awk '{ print $1 }')
    refuse "exported but not public" "$(echo "$offered" | grep -vxFf "$1")"
    refuse "public but not exported" "$(echo "$offered" | grep -vxFf - "$1")"
}

# soname NAME LIBRARY
soname()
{
    "$READELF" -dW "$2" | grep -qF "Library soname: [$1]" || { echo "no soname $1"; exit 1; }
}

"$@"
