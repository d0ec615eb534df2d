#!/bin/sh
# The manual pages are clean, and cmsverify(3) has every function that the library exports.
set -eu
source=$(cd "$(dirname "$0")/../.." && pwd)
mandoc -Tlint -Wwarning "$source"/packaging/man/*
while read -r function; do
    grep -qE "^\.F[no] $function( |$)" "$source/packaging/man/cmsverify.3" || { echo "cmsverify(3) lacks $function"; exit 1; }
done <"$source/tests/programs/exported_symbols.txt"
