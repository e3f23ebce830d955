#!/usr/bin/env bash
# demo.sh UMCTL - a short umctl session on the sample device.  `make demo` runs it through
# tools/sandbox/tvc-sandbox; on the host it would show the host's accounts, so it refuses.
set -uo pipefail

umctl=${1:?usage: demo.sh UMCTL}
if [[ ${TVC_SANDBOX-} != 1 ]]; then
    echo "demo.sh: run me inside the sandbox: tools/sandbox/tvc-sandbox -- $0 $umctl" >&2
    exit 2
fi

# Shows the command, runs it, and shows its exit status when it is not 0.
show() {
    echo
    echo "\$ umctl $*"
    "$umctl" "$@"
    local status=$?
    ((status == 0)) || echo "[exit status $status]"
}

echo "umctl on the sample device that tools/sampledevice/sample-device.txt describes"
show list
show show operator
show --as admin can CreateUser
show --as viewer can CreateUser
show --as viewer can UpdatePassword viewer
# Web logins: the password comes on stdin here, as a web request would carry it.  guest's
# third wrong password reaches the failed-login limit of the sample device's login service.
login() { # name password
    echo
    echo "\$ echo '$2' | umctl login $1 --password-stdin"
    echo "$2" | "$umctl" login "$1" --password-stdin
    local status=$?
    ((status == 0)) || echo "[exit status $status]"
}
login viewer 'Viewer#2026'
login guest 'Wrong#1'
login guest 'Wrong#2'
login guest 'Wrong#3'
login guest 'Guest#2026'
show user admin
show user 10002
show group viewers
show group 4101
show profiles
show groups admin
show settings
show --json user nosuch
show hash 'Demo#2026'
echo
