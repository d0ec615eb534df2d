#!/bin/sh
# cmake/install-packages.sh PACKAGE...
# Installs the Debian packages that are not there yet.
set -eu

missing=
for package; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

export DEBIAN_FRONTEND=noninteractive
# A foreign source that does not answer must not stop the installation; a package that is missing does.
apt-get -q update || true
# shellcheck disable=SC2086 # one word for each package
apt-get -q -y --no-install-recommends -o DPkg::Lock::Timeout=600 install $missing
