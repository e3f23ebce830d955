#!/usr/bin/env bash
# check-abi.sh HOST_STAGE ARMHF_BUILD SYSROOT WORKDIR
#
# The armhf build, installed into the sysroot under /opt/tvc-check as a device build stages it,
# against the host's install: the same SONAME, the same exported symbols, the same
# virtual functions in the same slots, and a device program that finds the library through
# pkg-config links and runs under qemu.  A host program built against the x86-64 headers and a
# device program built against the armhf ones must agree on the interface, or a plugin or
# a host compiled from the other build's headers calls the wrong function.
set -euo pipefail

host=$1 build=$2 sysroot=$3 work=$4
here=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
lib=lib/libtvc_usermanagement.so.1
failed=0
fail() { echo "check-abi: $*" >&2; failed=1; }
rm -rf "$work" "${sysroot:?}/opt/tvc-check"
mkdir -p "$work"
DESTDIR=$sysroot cmake --install "$build" --prefix /opt/tvc-check >"$work/install.log"
armhf=$sysroot/opt/tvc-check

for stage in "$host" "$armhf"; do
    soname=$(readelf -d "$stage/$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
    [[ $soname == libtvc_usermanagement.so.1 ]] || fail "$stage/$lib: SONAME is '$soname'"
done
readelf -h "$armhf/$lib" | grep -q 'Machine:.*ARM' || fail "$armhf/$lib is not an ARM library"
readelf -A "$armhf/$lib" | grep -q 'Tag_ABI_VFP_args: VFP registers' || fail "$armhf/$lib is not hard-float"

# Exported symbols, demangled.  size_t and ptrdiff_t are unsigned int and int on 32-bit ARM,
# unsigned long and long on x86-64: the one difference allowed.
exports() { # nm
    "$1" -DC --defined-only "$2" | cut -d' ' -f3- |
        sed -e 's/unsigned long/SIZE_T/g; s/unsigned int/SIZE_T/g' | sort -u
}
# The typeinfo of the shared_ptr deleter the library hands out (weak, looked up by get_deleter)
# is exported as GCC emits it: with its name on ARM, only the name on x86-64.  Left out of both.
deleter='typeinfo (name )?for systemutilities::free_delete'
exports nm "$host/$lib" | grep -Evx "$deleter" >"$work/host.exports"
exports arm-linux-gnueabihf-nm "$armhf/$lib" | grep -Evx "$deleter" >"$work/armhf.exports"
diff -u "$work/host.exports" "$work/armhf.exports" >"$work/exports.diff" ||
    fail "exported symbols differ between the builds: $work/exports.diff"
echo "check-abi: $(wc -l <"$work/armhf.exports") exported symbols alike"

# Virtual-slot order: GCC's class dump of every public header, for each architecture; the slots
# are listed in order, each with its function's name.  Offsets scale with the pointer size, so
# only the order is compared.
printf '#include <%s>\n' $(cd "$armhf/include" && find . -name '*.h' | sed 's|^\./||' | sort) >"$work/all.cpp"
vtables() { # compiler stage out
    (cd "$work" && "$1" -std=c++17 -fsyntax-only -fdump-lang-class="$3.class" -I"$2/include" all.cpp)
    awk '/^Vtable for /{ keep = ($3 ~ /^(usermanagement|authnz|systemutilities|tarvicexception|umlog)::/); if (keep) print $1, $2, $3; next }
         /^$/{ keep = 0; next }
         keep && /^[0-9]+ +\(/ { sub(/^[0-9]+ +/, ""); print "  " $0 }' "$work/$3.class" |
        sed -e 's/unsigned long/SIZE_T/g; s/unsigned int/SIZE_T/g; s/-[0-9]*/-N/g' >"$work/$3.vtables"
}
vtables g++ "$host" host
vtables arm-linux-gnueabihf-g++ "$armhf" armhf
[[ -s $work/armhf.vtables ]] || fail "no vtables found in the public headers"
diff -u "$work/host.vtables" "$work/armhf.vtables" >"$work/vtables.diff" ||
    fail "virtual slots differ between the builds: $work/vtables.diff"
echo "check-abi: $(grep -c '^Vtable' "$work/armhf.vtables") vtables, $(grep -c '^  ' "$work/armhf.vtables") slots in the same order"

# A device program found through pkg-config: the installed .pc file comes first on the search
# path.  Inside the sysroot, its paths are not prefixed with the sysroot a second time.
if PKG_CONFIG_PATH=$armhf/lib/pkgconfig cmake -S "$here/consumer" -B "$work/consumer" \
    --toolchain "$here/../../cmake/armhf-linux-gnueabihf.cmake" -DTVC_SYSROOT="$sysroot" >"$work/consumer.log" 2>&1 &&
    cmake --build "$work/consumer" >>"$work/consumer.log" 2>&1; then
    out=$(qemu-arm-static -L "$sysroot" -E LD_LIBRARY_PATH=/opt/tvc-check/lib "$work/consumer/tvc_consumer") ||
        fail "the pkg-config consumer failed under qemu: $out"
    [[ $out == "32-bit ZGV2aWNl device" ]] || fail "the pkg-config consumer printed '$out'"
    echo "check-abi: a pkg-config consumer built for armhf runs under qemu: $out"
else
    fail "the pkg-config consumer did not build: $work/consumer.log"
    cat "$work/consumer.log" >&2
fi
exit "$failed"
