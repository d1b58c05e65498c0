#!/bin/bash
# A small Debian system with the libraries that the packages depend on, from the archive that apt is
# configured for. Made once and then left alone; tests work on copies.
#
#   base_system.sh FOLDER
set -euo pipefail
base=$1
include=systemd,systemd-sysv,iproute2,can-utils,curl,procps
include+=,libjansson4,libmicrohttpd12,libsqlite3-0,libstdc++6
include+=,libcurl4,libmosquitto1,libprotobuf-c1,mosquitto,mosquitto-clients
. /etc/os-release
[ "$(cat "$base/complete" 2>/dev/null)" != "$VERSION_CODENAME $include" ] || exit 0

mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' \
    "Codename: $VERSION_CODENAME" 'Component: main' | head -n 1)
rm -rf "$base"
mkdir -p "$base"
debootstrap --variant=minbase --include="$include" "$VERSION_CODENAME" "$base" \
    ${mirror:+"$mirror"}
rm -rf "$base"/var/cache/apt/archives/*.deb
echo "$VERSION_CODENAME $include" >"$base/complete"
