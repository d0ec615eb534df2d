#!/bin/sh
# cmake/arm-sysroot.sh DIR
# Unpacks the armhf libraries that the ARM build links into DIR. apt works there on a state of its own, so that the
# packages and lists of this machine stay as they are.
set -eu

packages="libssl3 libssl-dev libsafec3 libsafec-dev libmbedcrypto7 libmbedtls-dev"

mkdir -p "$1"
cd "$1"
[ "$(cat complete 2>/dev/null)" != "$packages" ] || exit 0

apt()
{
    apt-get -q -o APT::Architecture=armhf -o APT::Architectures=armhf -o APT::Sandbox::User=root \
        -o Dir::State::Lists="$PWD/apt/lists" -o Dir::State::status=/dev/null -o Dir::Cache="$PWD/apt/cache" "$@"
}

mkdir -p apt/lists/partial apt/cache/archives/partial
apt update || echo "Some index did not load; going on with those that did." >&2
rm -f ./*.deb
# shellcheck disable=SC2086 # one word for each package
apt download $packages
for package in ./*.deb; do
    dpkg -x "$package" .
done
rm -rf apt ./*.deb
echo "$packages" >complete
