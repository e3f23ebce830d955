#!/usr/bin/env bash
# make-sysroot.sh - an armhf sysroot for the cross build and for running its tests under qemu.
#
# Usage: make-sysroot.sh SYSROOT
#
# The armhf packages come from Debian's archive through an apt configuration of our own (its
# own sources, lists, cache and an empty dpkg status, APT::Architecture=armhf): the host's dpkg
# never learns about armhf, and an armhf index that fails to load cannot break the host's apt.
# Each package is unpacked with dpkg-deb -x; nothing is configured and no maintainer script
# runs.  SYSROOT/.complete holds the package list of a finished sysroot: a second run with the
# same list does nothing, a changed list makes the sysroot again, downloading only the .deb
# files that the cache next to it (SYSROOT/../armhf-apt) does not hold yet.
#
# SYSROOT/../armhf-apt/dpkg is a dpkg database of what was unpacked (status, file lists, the
# packages' symbols and shlibs files), for dpkg-shlibdeps --admindir when the Debian packages
# are cross-built: it finds the sysroot's libraries through -l, asks this database which package
# holds each one, and reads that package's symbols file.  The file lists therefore name the
# files where they are, under SYSROOT; the database describes this sysroot and no other.
set -euo pipefail

sysroot=$(realpath -m "${1:?usage: make-sysroot.sh SYSROOT}")

# What the library, its tests and the sample device's PAM stack link against or load.
packages=(libc6 libc6-dev libstdc++6 libgcc-s1 linux-libc-dev
    libpam0g libpam0g-dev libpam-modules libpam-modules-bin libpam-pwquality libpwquality1
    libcrack2 cracklib-runtime libcrypt1 libcrypt-dev libssl3 libssl-dev
    libgtest-dev googletest libfiu0 libfiu-dev fiu-utils
    # The reference web host (tools/webhost): cpp-httplib with the packages its .pc file
    # requires (OpenSSL, zlib, brotli), and the header-only JSON library.
    libcpp-httplib-dev zlib1g-dev libbrotli-dev nlohmann-json3-dev
    # umctl's command line (header-only); it shares the JSON library with the web host.
    libcli11-dev
    # The benchmarks (`make bench-armhf`): Google Benchmark and its shared library.
    libbenchmark-dev libbenchmark1debian)
work=$(dirname "$sysroot")/armhf-apt
admindir=$work/dpkg
[[ -f $sysroot/.complete && $(<"$sysroot/.complete") == "${packages[*]}" && -f $admindir/status ]] && exit 0
# Dependencies that only matter on an installed system (package management, debconf's perl);
# the sysroot is never booted.
skip='^(debconf|perl-base|dpkg|tar|install-info|libpam-runtime|debianutils|base-files|cdebconf|libdebconfclient0|usrmerge|libc-bin|file|libmagic.*|gcc-12-base)$'

rm -rf "$sysroot" "$work"/etc "$work/status" "$admindir"
mkdir -p "$work"/{etc/apt.conf.d,etc/preferences.d,etc/sources.list.d,lists/partial,cache/archives/partial,debs} "$sysroot"
: >"$work/status"
# The same archive the host uses (Debian 12), read with the host's keyring.
cat >"$work/etc/sources.list" <<'SOURCES_END'
deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian bookworm main
deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian bookworm-updates main
deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian-security bookworm-security main
SOURCES_END
apt_opts=(-o "APT::Architecture=armhf" -o "APT::Architectures::=armhf"
    -o "Dir::Etc=$work/etc" -o "Dir::Etc::sourcelist=$work/etc/sources.list"
    -o "Dir::Etc::sourceparts=$work/etc/sources.list.d" -o "Dir::Etc::parts=$work/etc/apt.conf.d"
    -o "Dir::Etc::preferencesparts=$work/etc/preferences.d"
    -o "Dir::State=$work" -o "Dir::State::lists=$work/lists" -o "Dir::State::status=$work/status"
    -o "Dir::Cache=$work/cache" -o "Dir::Cache::archives=$work/cache/archives"
    -o "Debug::NoLocking=1" -o "APT::Sandbox::User=root")

# An index that fails to load (a security mirror that is down) is tolerated: the packages are
# then taken from the others, and a package nobody offers fails the download below.
apt-get "${apt_opts[@]}" update || echo "make-sysroot: some armhf indexes failed to load; going on" >&2

mapfile -t closure < <(apt-cache "${apt_opts[@]}" depends --recurse --no-recommends --no-suggests \
    --no-conflicts --no-breaks --no-replaces --no-enhances --no-pre-depends "${packages[@]}" |
    grep -v '^ ' | grep -v '^<' | sed 's/:armhf$//' | sort -u | grep -Ev "$skip")
# Pre-depends left out above pull in the package tools; libc6 and friends are listed already.
# The candidates' file names; only those missing from the cache are downloaded, and files
# of versions no longer wanted leave it.
mapfile -t files < <(apt-get "${apt_opts[@]}" download --print-uris "${closure[@]}" | awk '{print $2}')
missing=()
for file in "${files[@]}"; do
    [[ -f $work/debs/$file ]] || missing+=("${file%%_*}")
done
if ((${#missing[@]})); then
    (cd "$work/debs" && apt-get "${apt_opts[@]}" download "${missing[@]}")
fi
for deb in "$work"/debs/*.deb; do
    [[ " ${files[*]} " == *" ${deb##*/} "* ]] || rm -f "$deb"
done
mkdir -p "$admindir"/{info,updates}
echo armhf >"$admindir/arch"
# The database's layout with architecture-qualified names.
echo 1 >"$admindir/info/format"
control=$(mktemp -d)
trap 'rm -rf "$control"' EXIT
for file in "${files[@]}"; do
    deb=$work/debs/$file
    dpkg-deb -x "$deb" "$sysroot"
    # The package's status entry: its control fields, installed.
    dpkg-deb -f "$deb" | sed '/^Package:/a Status: install ok installed' >>"$admindir/status"
    echo >>"$admindir/status"
    # dpkg names a Multi-Arch: same package's files after package and architecture.
    name=$(dpkg-deb -f "$deb" Package)
    if [[ $(dpkg-deb -f "$deb" Multi-Arch) == same ]]; then name+=:armhf; fi
    dpkg-deb --fsys-tarfile "$deb" | tar -t | sed -e 's|^\.||' -e 's|/$||' -e "s|^|$sysroot|" \
        >"$admindir/info/$name.list"
    rm -rf "$control"/*
    dpkg-deb -e "$deb" "$control"
    for part in symbols shlibs; do
        if [[ -f $control/$part ]]; then cp "$control/$part" "$admindir/info/$name.$part"; fi
    done
done

# Only libraries, headers and programs belong here.  Under qemu -L every absolute path is
# looked up in the sysroot first: an etc/ or var/ here would hide the sandbox's /etc/pam.d,
# /etc/passwd... from the emulated programs.
rm -rf "${sysroot:?}"/{etc,var,run,home,tmp}

# Absolute symlinks (libfoo.so -> /lib/arm-linux-gnueabihf/libfoo.so.1) would point into the
# host; they become relative to their place in the sysroot.
while IFS= read -r link; do
    target=$(readlink "$link")
    [[ $target == /* ]] || continue
    ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")" "$link"
done < <(find "$sysroot" -type l)
echo "${packages[*]}" >"$sysroot/.complete"
echo "make-sysroot: $sysroot holds ${#closure[@]} armhf packages"
