#!/bin/bash
# help_test.sh PKGTOOL
# pkgtool(1) has every command and option that --help has, and no others; pkgtool and the packages have one version.
set -eu
source=$(cd "$(dirname "$0")/../.." && pwd)
page=$source/packaging/man/pkgtool.1
status=0

# helpOf COMMAND...: its commands, each with a dot before it, and its options.
helpOf()
{
    "$pkgtool" "$@" --help | sed -nE \
        -e '/^Subcommands:/,/^$/s/^  ([a-z][a-z-]*) .*/.\1/p' \
        -e 's/^ +(-[a-z],)?(--[a-z0-9-]+).*/\2/p'
}

# collect COMMAND...: all commands and options from here on, into help.
collect()
{
    local word
    for word in $(helpOf "$@"); do
        case $word in
            --*) help+="$word"$'\n' ;;
            *)
                help+="$* ${word#.}"$'\n'
                collect "$@" "${word#.}"
                ;;
        esac
    done
}

pkgtool=$1
help=
collect
while read -r line; do
    case $line in
        --help) ;;
        --*) grep -qE "Fl -${line#--}( |\$)" "$page" || { echo "pkgtool(1) lacks $line"; status=1; } ;;
        *) grep -qE "^\.It Cm $line( |\$)" "$page" || { echo "pkgtool(1) lacks the command $line"; status=1; } ;;
    esac
done < <(sort -u <<<"$help" | grep .)
for option in $(grep -oE 'Fl -[a-z0-9-]+' "$page" | sort -u | sed 's/Fl -/--/'); do
    [ "$option" = --help ] || grep -qxF -e "$option" <<<"$help" || { echo "pkgtool(1) has $option, pkgtool does not"; status=1; }
done

version=$(sed -nE 's/^#define CMSVERIFY_VERSION "(.*)"/\1/p' "$source/cmsverify/include/pelnic_cms_verify.h")
[ "$("$pkgtool" --version)" = "pkgtool $version" ] || { echo "pkgtool is not of version $version"; status=1; }
exit $status
