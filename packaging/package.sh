#!/bin/bash
# Debian packages of this tree into build/package/, with a bill of materials (SPDX) each architecture
#
#   package.sh [ARCHITECTURE...]      default: amd64 armhf
#
# Another architecture than the machine's is cross built with cmake/ARCHITECTURE.cmake. What is up
# to date already is not built again. Works offline once it has run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD out=$PWD/build/package
export LC_ALL=C.UTF-8

# What goes into a package or is needed to build one
sources=(CMakeLists.txt CHANGELOG.md cmake docs packaging platform schema src tools)
version=$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)

say() { echo "package: $*"; }
fail() { echo "package: $*" >&2; exit 1; }

need() {
    local missing=
    while [ $# -gt 0 ]; do
        command -v "$1" >/dev/null || missing+=" $2"
        shift 2
    done
    [ -z "$missing" ] || fail "Debian packages are missing:$missing"
}

fingerprint() {
    find "${sources[@]}" -type f ! -name '*.pyc' -print0 | sort -z | xargs -0 sha256sum |
        sha256sum | cut -d ' ' -f 1
}

# The day of the last change that is known, so that the same tree gives the same packages.
changelog() {
    local day
    day=$(git log -1 --format=%cD 2>/dev/null) || day=$(date -R -r CHANGELOG.md)
    cat <<END
kt-can-proprietary ($version) unstable; urgency=medium

  * Release $version; CHANGELOG.md tells what changed.

 -- the kt-can-proprietary developers <developers@kt-can-proprietary.invalid>  $day
END
}

export_source() {
    rm -rf "$1"
    mkdir -p "$1"
    cp -r --preserve=mode,timestamps "${sources[@]}" "$1"
    find "$1" -name __pycache__ -prune -exec rm -r {} +
    mv "$1/packaging/debian" "$1/debian"
    changelog >"$1/debian/changelog"
}

bill_of_materials() {
    local record=/var/lib/dpkg/status
    [ "$1" = "$(dpkg --print-architecture)" ] || record=$KT_ARMHF_SYSROOT/var/lib/dpkg/status
    /usr/bin/python3 packaging/sbom.py "$1" "$out" "$record" \
        "$out/kt-can-proprietary_${version}_$1.spdx.json"
}

package() {
    local architecture=$1 work=$out/$1-work mark=$out/$1.built state cross=()
    state=$(fingerprint)
    if [ "$(cat "$mark" 2>/dev/null)" = "$state" ]; then
        say "$architecture: up to date"
        return
    fi
    if [ "$architecture" != "$(dpkg --print-architecture)" ]; then
        [ -e "cmake/$architecture.cmake" ] || fail "no cross build for $architecture"
        need arm-linux-gnueabihf-g++ g++-arm-linux-gnueabihf
        export KT_ARMHF_SYSROOT=$root/build/sysroot-$architecture
        packaging/sysroot.sh "$architecture" "$KT_ARMHF_SYSROOT"
        cross=(--host-arch "$architecture" --no-check-builddeps)
    fi
    say "$architecture: building $version"
    rm -f "$mark" "$out"/*_"$architecture".*deb "$out"/*_"$architecture".spdx.json
    export_source "$work/source"
    (cd "$work/source" && DEB_BUILD_OPTIONS="nocheck parallel=$(nproc) ${DEB_BUILD_OPTIONS:-}" \
        DEB_BUILD_PROFILES=nocheck dpkg-buildpackage --build=any --unsigned-changes \
        --no-pre-clean "${cross[@]}") >"$out/$architecture.log" 2>&1 || {
        tail -n 40 "$out/$architecture.log" >&2
        fail "$architecture: failed, see $out/$architecture.log"
    }
    mv "$work"/*_"$architecture".*deb "$out"
    rm -rf "$work"
    bill_of_materials "$architecture"
    echo "$state" >"$mark"
    (cd "$out" && ls -- *_"$version"_"$architecture".deb)
}

need dpkg-buildpackage dpkg-dev dh debhelper cmake cmake ninja ninja-build g++ g++ \
    /usr/bin/python3 python3
mkdir -p "$out"
[ $# -gt 0 ] || set -- amd64 armhf
for architecture; do
    package "$architecture"
done
