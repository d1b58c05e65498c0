#!/bin/bash
# The libraries of another architecture, for cross builds, in a folder of their own: the machine's
# package system stays as it is, and no root is needed.
#
#   sysroot.sh ARCHITECTURE FOLDER
#
# Holds the -dev packages of Build-Depends and those of the tests with all that they depend on, from
# the archives that apt is configured for, and below var/lib/dpkg the record by which dpkg-shlibdeps
# finds a library's package. A folder that has them already is left alone.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/private_apt.sh"
architecture=$1
mkdir -p "$2"
root=$(cd "$2" && pwd)
apt=$root/var/apt

packages=$(grep -o '\blib[a-z0-9.+-]*-dev\b' "$here/debian/control" | sort -u | tr '\n' ' ')
packages+="libc6 libstdc++6 libgcc-s1 libgmock-dev libgtest-dev"
if [ "$(cat "$root/complete" 2>/dev/null)" = "$root: $packages" ]; then
    exit 0
fi
echo "sysroot: fetching the libraries of $architecture"
rm -rf "${root:?}"/*
mkdir -p "$root"/var/lib/dpkg/{info,updates}

private_apt "$apt" "$architecture" update ||
    echo "sysroot: going on with the package lists that there are"
# shellcheck disable=SC2086 # a list of packages
private_apt "$apt" "$architecture" -y --download-only install $packages

# As on the machine: /lib is /usr/lib.
mkdir -p "$root/usr/lib"
ln -s usr/lib "$root/lib"
dpkg=$root/var/lib/dpkg
echo 1 >"$dpkg/info/format"
unpack() {
    local deb=$1 name control
    name=$(dpkg-deb -f "$deb" Package)
    case $name in
        libc6-dev | linux-libc-dev | libcrypt-dev | libnsl-dev) return ;; # the cross compiler's
    esac
    dpkg-deb --fsys-tarfile "$deb" | tar -x --keep-directory-symlink -C "$root"
    dpkg-deb -f "$deb" >>"$dpkg/status"
    printf 'Status: install ok installed\n\n' >>"$dpkg/status"
    [ "$(dpkg-deb -f "$deb" Multi-Arch)" != same ] || name+=:$architecture
    # Libraries are asked for by the path at which they lie here.
    dpkg-deb --fsys-tarfile "$deb" | tar -t | sed "s|^\./lib/|./usr/lib/|; s|^\.|$root|; s|/\$||" \
        >"$dpkg/info/$name.list"
    control=$(mktemp -d)
    dpkg-deb -e "$deb" "$control"
    for file in shlibs symbols; do
        [ ! -e "$control/$file" ] || mv "$control/$file" "$dpkg/info/$name.$file"
    done
    rm -r "$control"
}
for deb in "$apt"/cache/archives/*.deb; do
    unpack "$deb"
done
rm -r "$apt"
echo "$root: $packages" >"$root/complete"
