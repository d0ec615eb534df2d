#!/bin/sh
# cmake/install-packages.sh PACKAGE...
# Installs the Debian packages that are not there yet, and says before how much that is. With all of them there it needs
# neither root nor a network. apt's own words are in build/apt.log.
set -eu
export LC_ALL=C DEBIAN_FRONTEND=noninteractive
cd "$(dirname "$0")/.."

missing=
for package; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0
command="apt-get install --no-install-recommends$missing"

# size: what apt thinks of the command, as far as it knows the packages.
size()
{
    # shellcheck disable=SC2086 # one word for each package
    apt-get -o Debug::NoLocking=1 --assume-no --no-install-recommends install $missing 2>/dev/null | awk '
        / newly installed/ { count = $1 + $3 }
        /^Need to get/ { sub("/.*", "", $5); download = $4 " " $5 }
        /disk space/ { disk = $4 " " $5 }
        END { if (count) printf " (%d packages, %s to download, %s on disk)", count, download, disk }'
}

if [ "$(id -u)" != 0 ]; then
    echo "Run this once as root; after that any user will do, without a network: $command$(size)" >&2
    exit 1
fi
mkdir -p build
# A foreign source that does not answer must not stop the installation; a package that is missing does.
apt-get -q update >build/apt-update.log 2>&1 || true
echo "Debian packages are missing$(size):$missing"
# shellcheck disable=SC2086 # one word for each package
cmake/progress.sh "Installing them" build/apt.log apt-get -q -y --no-install-recommends -o DPkg::Lock::Timeout=600 \
    -o APT::Status-Fd=1 install $missing || {
    echo "Nothing was built. With a network, as root: apt-get update && $command" >&2
    exit 1
}
