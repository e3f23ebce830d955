#!/usr/bin/env bash
# build-packages.sh - the Debian packages of the library, umctl and tvc-webd, for one architecture.
#
# Usage: build-packages.sh ARCH OUTDIR [SYSROOT ADMINDIR]
#
# dpkg-buildpackage writes its results next to the source tree, so the package is built from a
# copy of the checkout (its tracked files and the new ones git does not ignore, uncommitted
# changes included) under OUTDIR/../src/ARCH; the .deb, .buildinfo and .changes files are then
# moved to OUTDIR and checked with lintian, which fails on any error or warning.  A foreign ARCH
# (armhf) is cross-built with the project's toolchain file against SYSROOT, and its dependencies
# are read from ADMINDIR, the sysroot's dpkg database (tools/armhf/make-sysroot.sh writes both).
# JOBS (2) sets the build's parallel jobs.
set -euo pipefail

arch=${1:?usage: build-packages.sh ARCH OUTDIR [SYSROOT ADMINDIR]}
outdir=$(realpath -m "${2:?usage: build-packages.sh ARCH OUTDIR [SYSROOT ADMINDIR]}")
top=$(git -C "$(dirname "$0")" rev-parse --show-toplevel)
work=$(dirname "$outdir")/src/$arch
version=$(dpkg-parsechangelog -l "$top/debian/changelog" -S Version)
source=$(dpkg-parsechangelog -l "$top/debian/changelog" -S Source)
tree=$work/$source-$version

rm -rf "$work" "$outdir"
mkdir -p "$tree" "$outdir"
(cd "$top" && git ls-files -z --cached --others --exclude-standard |
    while IFS= read -r -d '' file; do [[ -e $file || -L $file ]] && printf '%s\0' "$file"; done |
    tar --null -T - -cf -) | tar -xf - -C "$tree"

options=(-b -us -uc "-j${JOBS:-2}")
# The suites run in the project's own builds; a cross build could not run them anyway.
export DEB_BUILD_OPTIONS="nocheck${DEB_BUILD_OPTIONS:+ $DEB_BUILD_OPTIONS}"
if [[ $arch != "$(dpkg --print-architecture)" ]]; then
    sysroot=$(realpath "${3:?a cross build needs the SYSROOT}")
    admindir=$(realpath "${4:?a cross build needs the dpkg ADMINDIR of the sysroot}")
    # -d: the build dependencies are the sysroot's, which the host's dpkg does not know.
    options+=(-a "$arch" -d)
    export TVC_SYSROOT=$sysroot TVC_SYSROOT_ADMINDIR=$admindir
fi
(cd "$tree" && dpkg-buildpackage "${options[@]}")

mv "$work"/*.deb "$work"/*.buildinfo "$work"/*.changes "$outdir"/
changes=$(ls "$outdir"/*.changes)
lintian --fail-on error,warning --info "$changes"
echo "build-packages: $arch packages in $outdir:"
ls "$outdir"
