#!/usr/bin/env bash
# install-test.sh - the Debian packages installed for real, into a throw-away root.
#
# Usage: install-test.sh DEBDIR [PAM_DIR]
#
# In a private mount namespace /usr, /etc and /var are overlays whose upper layers live on a
# tmpfs of that namespace only; there `dpkg -i` installs DEBDIR's libtvc-usermanagement1,
# libtvc-usermanagement-dev, umctl and tvc-webd, their dependencies checked against the host's
# installed packages.  Inside, the README's host example (tests/examples/readme-examples.sh
# --installed, in the device sandbox with PAM_DIR's PAM modules) is built against the
# installed library with plain pkg-config and with CMake's find_package (no path options) and
# run; umctl prints its settings; tvc-webd serves its installed pages on a loopback port.
# Afterwards the host's package list (dpkg -l) and dpkg database must be as before and nothing
# under /usr or /var/lib/dpkg may be newer than the start of the test.  Needs root, unshare and overlayfs;
# exits 77 (skipped) without them.
set -Eeuo pipefail

readonly INNER_MARKER=__tvc_install_test_inner__
SELF=$(readlink -f "${BASH_SOURCE[0]}")
HERE=$(dirname "$SELF")
README_EXAMPLES=$HERE/../examples/readme-examples.sh
readonly SELF HERE README_EXAMPLES
packages=(libtvc-usermanagement1 libtvc-usermanagement-dev umctl tvc-webd)

fail() {
    echo "install-test: FAILED: $*" >&2
    exit 1
}

step() {
    echo "install-test: $*"
}

# Runs inside the namespace: mounts the throw-away root, installs, builds, runs.
inner() { # scratch debdir pam_dir
    local scratch=$1 debdir=$2 pam_dir=$3 dir
    mount -n -t tmpfs tvc-install-test "$scratch"
    for dir in /usr /etc /var; do
        mkdir -p "$scratch$dir"/{upper,work}
        mount -n -t overlay tvc-install-test \
            -o "lowerdir=$dir,upperdir=$scratch$dir/upper,workdir=$scratch$dir/work" "$dir"
    done
    local debs=()
    for package in "${packages[@]}"; do
        debs+=("$(ls "$debdir/${package}_"*.deb)")
    done
    step "dpkg -i ${debs[*]##*/}"
    DEBIAN_FRONTEND=noninteractive dpkg -i "${debs[@]}" || fail "dpkg -i"
    for package in "${packages[@]}"; do
        [[ $(dpkg-query -W -f '${db:Status-Abbrev}' "$package") == "ii " ]] || fail "$package is not installed"
    done

    local work=$scratch/work
    mkdir -p "$work"
    step "the README's host example against the installed packages"
    local args=(--installed) result=0
    if [[ -n $pam_dir ]]; then args+=(--pam-dir "$pam_dir"); fi
    "$README_EXAMPLES" "${args[@]}" || result=$?
    case $result in
    0) ;;
    77) step "the README's host example skipped: no device sandbox" ;;
    *) fail "readme-examples.sh ${args[*]}" ;;
    esac
    step "umctl settings"
    /usr/sbin/umctl settings || fail "umctl settings"
    # The sample device's configuration, shipped as umctl's example.
    local example=/usr/share/doc/umctl/examples/device.conf
    if [[ -f $example ]]; then
        step "umctl --config $example settings"
        /usr/sbin/umctl --config "$example" settings >/dev/null || fail "umctl with the example configuration"
    fi

    step "tvc-webd serves its installed pages"
    local portfile=$work/port pid port page config=()
    if [[ -f $example ]]; then config=(--config "$example"); fi
    /usr/sbin/tvc-webd --http --listen 127.0.0.1 --port 0 --port-file "$portfile" \
        --state-dir "$work/webd-state" "${config[@]}" >"$work/webd.log" 2>&1 &
    pid=$!
    for _ in $(seq 100); do
        [[ -s $portfile ]] && break
        kill -0 "$pid" 2>/dev/null || { cat "$work/webd.log"; fail "tvc-webd exited"; }
        sleep 0.1
    done
    [[ -s $portfile ]] || { kill "$pid"; fail "tvc-webd wrote no port"; }
    port=$(<"$portfile")
    page=$(curl -fsS "http://127.0.0.1:$port/") || { kill "$pid"; cat "$work/webd.log"; fail "GET / from tvc-webd"; }
    kill -TERM "$pid"
    wait "$pid" || fail "tvc-webd did not stop cleanly"
    [[ $page == "$(</usr/share/tvc-webd/static/index.html)" ]] ||
        fail "tvc-webd's / is not /usr/share/tvc-webd/static/index.html"
    step "all steps passed"
}

if [[ ${1:-} == "$INNER_MARKER" ]]; then
    shift
    inner "$@"
    exit 0
fi

debdir=$(realpath "${1:?usage: install-test.sh DEBDIR [PAM_DIR]}")
pam_dir=${2:+$(realpath "$2")}
for package in "${packages[@]}"; do
    compgen -G "$debdir/${package}_*.deb" >/dev/null || fail "no $package package in $debdir"
done
if [[ $(id -u) != 0 ]] || ! unshare --mount --propagation private true 2>/dev/null ||
   ! grep -qw overlay /proc/filesystems; then
    echo "install-test: skipped: needs root, unshare --mount and overlayfs" >&2
    exit 77
fi

state=$(mktemp -d)
scratch=$(mktemp -d)
trap 'rmdir "$scratch" 2>/dev/null; rm -rf "$state"' EXIT
dpkg -l >"$state/dpkg-l.before"
(cd /var/lib/dpkg && find . -xdev -type f -print0 | sort -z | xargs -0 sha256sum) >"$state/dpkg-db.before"
touch "$state/start"
sleep 1

status=0
unshare --mount --propagation private -- "$SELF" "$INNER_MARKER" "$scratch" "$debdir" "$pam_dir" || status=$?

dpkg -l >"$state/dpkg-l.after"
(cd /var/lib/dpkg && find . -xdev -type f -print0 | sort -z | xargs -0 sha256sum) >"$state/dpkg-db.after"
diff -u "$state/dpkg-l.before" "$state/dpkg-l.after" || fail "the host's package list changed"
diff -u "$state/dpkg-db.before" "$state/dpkg-db.after" || fail "the host's dpkg database changed"
newer=$(find /usr /var/lib/dpkg -xdev -newer "$state/start" -print -quit)
[[ -z $newer ]] || fail "the host's $newer changed during the test"
for package in "${packages[@]}"; do
    dpkg-query -W "$package" >/dev/null 2>&1 && fail "$package is installed on the host"
done
echo "install-test: the host's /usr and dpkg database unchanged"
exit $status
