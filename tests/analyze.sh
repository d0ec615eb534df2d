#!/bin/sh
# analyze.sh CASE BUILD
# Holds the sources to their rules without running them; BUILD is a build tree with compile commands. Silent when clean.
set -eu
cd "$(dirname "$0")/.."
build=$2
cores=$(nproc)

# sources NAME DIR...
sources()
{
    name=$1
    shift
    find "$@" -name "$name" | sort
}

format()
{
    sources '*.[ch]*' bench cmsverify examples fuzz pkgtool tests tool 2>/dev/null | grep -E '\.(c|cpp|h)$' |
        xargs -P "$cores" -n 20 clang-format --dry-run -Werror
    awk 'FNR == 1 && !/^\/\// { print FILENAME ": does not open with what it proves"; found = 1 } END { exit found }' \
        tests/*/*_test.cpp
}

# The build's commands without g++'s precompiled headers, which clang-tidy cannot read.
commands()
{
    mkdir -p "$build/tidy"
    sed 's/-Winvalid-pch -include [^ ]*//' "$build/compile_commands.json" >"$build/tidy/compile_commands.json"
}

# What this build tree does not compile, another crypto library's callbacks for instance, has no commands.
tidy()
{
    commands
    sources '*.cpp' cmsverify tool | while read -r file; do
        ! grep -qF "/$file\"" "$build/tidy/compile_commands.json" || echo "$file"
    done | xargs -P "$cores" -n 3 clang-tidy -p "$build/tidy" --quiet 2>/dev/null
}

# The host tool's headers are large: minutes instead of seconds.
tidy_pkgtool()
{
    commands
    sources '*.cpp' pkgtool | xargs -P "$cores" -n 3 clang-tidy -p "$build/tidy" --quiet 2>/dev/null
}

cppcheck()
{
    command cppcheck -q -j "$cores" --std=c++17 --language=c++ --library=posix --error-exitcode=1 \
        --enable=warning,performance,portability,style --suppressions-list=.cppcheck-suppressions \
        -I . -I tool -I cmsverify/include cmsverify tool pkgtool bench
}

# The compiler's own: knows C++ only in part, so it runs beside the others.
analyzer()
{
    sources '*.cpp' cmsverify tool | xargs -P "$cores" -n 1 \
        g++ -std=c++17 -O1 -fanalyzer -Werror -fno-exceptions -fno-rtti -fsigned-char -D_FILE_OFFSET_BITS=64 \
        -I . -I tool -I cmsverify/include -I /usr/include/safeclib -c -o /dev/null
}

"$1"
