#!/bin/bash
# completion_test.sh PKGTOOL
# Sources the completions for bash and zsh and presses the tabulator.
set -u
source=$(cd "$(dirname "$0")/../.." && pwd)
PATH=$(realpath "$(dirname "$1")"):$PATH
. "$source/packaging/completions/pkgcheck"
. "$source/packaging/completions/pkgtool"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir" || exit 1
touch image.bin image.cms
mkdir images
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
    # To zsh --option=value is one word.
    local line=${COMP_WORDS[*]}
    line=${line// = /=}
    line=${line/% =/=}
    read -r -a COMP_WORDS <<<"$line"
    [[ $line != *' ' ]] || COMP_WORDS+=('')
    found=$("$source/tests/programs/completion_test.zsh" "$source/packaging/completions/_pkgtool" "${COMP_WORDS[@]}" | sort | xargs)
    [ "$found" = "$expected" ] || { echo "zsh: ${COMP_WORDS[*]}: '$found' instead of '$expected'"; status=1; }
}

completes 'pkgtool si' sign
completes 'pkgtool re' release renew-crls
completes 'pkgtool pki ' new crl revoke
completes 'pkgtool crl ' show compare
completes 'pkgtool crl s' show
completes 'pkgtool crl show --i' --intermediate
completes 'pkgtool sign --tsa-re' --tsa-request-out --tsa-response
completes 'pkgtool sign --digest sha' sha256 sha384 sha512
completes 'pkgtool sign --digest sha5' sha512
completes 'pkgtool sign --digest =' sha256 sha384 sha512
completes 'pkgtool sign --digest = sha3' sha384
completes 'pkgtool sign --p' --p12 --pass --pem
completes 'pkgtool verify -j ' ''
completes 'pkgtool verify --jobs ' ''
completes 'pkgtool pki new --crl-days ' ''
completes 'pkgtool sign im' image.bin image.cms images
completes 'pkgtool unpack -d im' images
completes 'pkgtool release --pki im' images
completes 'pkgtool sign --pass im' ''
completes 'pkgtool sign --pem im' image.bin image.cms images
completes 'pkgtool sign --cert image.c' image.cms
completes 'pkgtool pack --image-version ' ''
completes 'pkgtool pack -o image.b' image.bin
completes 'pkgtool sign image.bin --out' --output
completes 'pkgtool nonsense im' ''

# Whatever is offered is an option of the command.
for command in pki\ new release sign stamp pack renew-crls crl\ show inspect explain lint verify code; do
    COMP_WORDS=(pkgtool $command --)
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _pkgtool
    mapfile -t in_zsh < <("$source/tests/programs/completion_test.zsh" "$source/packaging/completions/_pkgtool" "${COMP_WORDS[@]}")
    [ "${#in_zsh[@]}" = "${#COMPREPLY[@]}" ] || { echo "$command: zsh offers other options than bash"; status=1; }
    for option in "${COMPREPLY[@]}" "${in_zsh[@]}"; do
        # shellcheck disable=SC2086 # a command can be two words
        pkgtool $command --help | grep -qE -e "(^|[ ,])$option( |\$)" || { echo "$command has no $option"; status=1; }
    done
    [ "${#COMPREPLY[@]}" -gt 0 ] || { echo "$command: nothing offered"; status=1; }
done

[[ $(complete -p pkgcheck) == *file* ]] || { echo "pkgcheck completes no file names"; status=1; }

exit $status
