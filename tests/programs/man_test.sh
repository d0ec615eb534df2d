#!/bin/sh
# The manual pages are clean, cmsverify(3) has every function that the library exports, and pkgcheck-package(5) every field.
set -eu
source=$(cd "$(dirname "$0")/../.." && pwd)
mandoc -Tlint -Wwarning "$source"/packaging/man/*
while read -r function; do
    grep -qE "^\.F[no] $function( |$)" "$source/packaging/man/cmsverify.3" || { echo "cmsverify(3) lacks $function"; exit 1; }
done <"$source/tests/programs/exported_symbols.txt"
# pkgcheck-package(5) has the fields that the document of the format has, at the same offsets.
sed -nE 's/^\| ([0-9]+) \| ([0-9]+) \| `([A-Za-z0-9]+)(\[8\])?` .*/\1 Ta \2 Ta \3/p' "$source/docs/package-format.md" >"${fields:=$(mktemp)}"
trap 'rm -f "$fields"' EXIT
[ "$(wc -l <"$fields")" -eq 10 ] || { echo "docs/package-format.md has not the ten fields of the header"; exit 1; }
while read -r field; do
    grep -qF "It $field" "$source/packaging/man/pkgcheck-package.5" || { echo "pkgcheck-package(5) lacks $field"; exit 1; }
done <"$fields"
