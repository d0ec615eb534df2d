#!/bin/sh
# docs_test.sh DOCUMENT DIR
# Runs the commands of a document: all its blocks marked sh, in their order and in one shell, at the top of a copy of
# the sources in DIR. Blocks with another mark are only shown.
set -eu
source=$(cd "$(dirname "$0")/../.." && pwd)
document=$(realpath "$1")
mkdir -p "$2"
dir=$(realpath "$2")

# A build tree from the last time stays, since paths in it are the same; what the commands made there goes, and with it
# the root certificate that the tree was configured with.
rm -rf "$dir/build/trial"
for cache in "$dir"/build/*/CMakeCache.txt; do
    [ ! -e "$cache" ] || sed -i 's/^\(PKGCHECK_ROOT_CERT:[A-Z]*=\).*/\1/' "$cache"
done
find "$dir" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} +
tar -C "$source" --exclude=./build --exclude=./.git -cf - . | tar -C "$dir" -xf -

{
    echo 'set -eux'
    awk '/^```/ { run = !inside && $0 == "```sh"; inside = !inside; next } run' "$document"
} >"$dir/commands.sh"
[ "$(wc -l <"$dir/commands.sh")" -gt 1 ] || { echo "no commands in $1"; exit 1; }
cd "$dir"
# The documents install ninja and no make.
mkdir -p bin
for make in make gmake; do
    printf '#!/bin/sh\necho "the documents do not install make" >&2\nexit 1\n' >bin/$make
    chmod +x bin/$make
done
PATH=$dir/bin:$PATH sh commands.sh
