#!/bin/bash
# completion_test.sh PKGTOOL
# Sources the bash completions and presses the tabulator.
set -u
source=$(cd "$(dirname "$0")/.." && pwd)
PATH=$(realpath "$(dirname "$1")"):$PATH
. "$source/completions/pkgcheck"
. "$source/completions/pkgtool"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir" || exit 1
touch image.bin image.cms
status=0

# completes 'WORDS' EXPECTED...: the last word is the one begun.
completes()
{
    read -r -a COMP_WORDS <<<"$1"
    [[ $1 != *' ' ]] || COMP_WORDS+=('')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    shift
    _pkgtool
    found=$(printf '%s\n' "${COMPREPLY[@]}" | sort | xargs)
    expected=$(printf '%s\n' "$@" | sort | xargs)
    [ "$found" = "$expected" ] || { echo "${COMP_WORDS[*]}: '$found' instead of '$expected'"; status=1; }
}

completes 'pkgtool si' sign
completes 'pkgtool pki ' new crl revoke
completes 'pkgtool crl ' show compare
completes 'pkgtool crl s' show
completes 'pkgtool crl show --i' --intermediate
completes 'pkgtool sign --tsa-re' --tsa-request-out --tsa-response
completes 'pkgtool sign --digest sha' sha256 sha384 sha512
completes 'pkgtool sign --digest sha5' sha512
completes 'pkgtool sign im' image.bin image.cms
completes 'pkgtool sign --cert image.c' image.cms
completes 'pkgtool pack --version ' ''
completes 'pkgtool pack -o image.b' image.bin
completes 'pkgtool sign image.bin --out' --output
completes 'pkgtool nonsense im' ''

[[ $(complete -p pkgcheck) == *file* ]] || { echo "pkgcheck completes no file names"; status=1; }

# The manual page tells of every command.
for command in $(pkgtool --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p'); do
    grep -qE "^\.It Cm $command( |$)" "$source/man/pkgtool.1" || { echo "pkgtool(1) lacks $command"; status=1; }
done
exit $status
