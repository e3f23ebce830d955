#!/usr/bin/env bash
# demo.sh UMCTL - a short umctl session on the sample device, then one account's whole life.
# `make demo` runs it through tools/sandbox/tvc-sandbox; on the host it would show and change
# the host's accounts, so it refuses.
set -uo pipefail

umctl=${1:?usage: demo.sh UMCTL}
if [[ ${TVC_SANDBOX-} != 1 ]]; then
    echo "demo.sh: run me inside the sandbox: tools/sandbox/tvc-sandbox -- $0 $umctl" >&2
    exit 2
fi

# umctl's log lines ("umctl: log: ...", the audit events) go to standard error; the demo shows
# them in line with the answers, also when its output goes to a pipe.
status_line() {
    local status=$1
    ((status == 0)) || echo "[exit status $status]"
}

# Shows the command, runs it, and shows its exit status when it is not 0.
show() {
    echo
    echo "\$ umctl $*"
    "$umctl" "$@" 2>&1
    status_line $?
}

# Like show, with LINES on umctl's standard input, one password a line: as a script or a web
# request would give them (on a terminal umctl asks without echo).
feed() { # lines... -- umctl arguments...
    local -a lines=()
    while [[ $1 != -- ]]; do
        lines+=("$1")
        shift
    done
    shift
    # shellcheck disable=SC2016 # the format for the shown command, printed as it is
    printf '\n$ printf %s %s | umctl %s\n' "'%s\n'" "${lines[*]@Q}" "$*"
    printf '%s\n' "${lines[@]}" | "$umctl" "$@" 2>&1
    status_line $?
}

# A web login: the password comes on stdin, as a web request would carry it.
login() { # name password
    feed "$2" -- login "$1" --password-stdin
}

step() {
    echo
    echo "== $* =="
}

# The last N commands the library ran as root, as the sandbox records them.
ran_as_root() { # N
    echo
    echo "\$ tail -n $1 /var/log/tvc-commands.log"
    tail -n "$1" /var/log/tvc-commands.log
}

echo "umctl on the sample device that tools/sampledevice/sample-device.txt describes"
show list
show show operator
show --as admin can CreateUser
show --as viewer can CreateUser
show --as viewer can UpdatePassword viewer
# guest's third wrong password reaches the failed-login limit of the sample device's login
# service.
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
feed 'Demo#2026' -- hash

# One account from creation to removal.  The user manager admin does the managing (--as admin),
# so the rights checks and the audit lines name admin; a viewer is refused the same.
step "A viewer may not create accounts"
feed 'Maple#Harbor42' -- --as viewer create carol --profile 2
step "admin creates carol, a viewer"
feed 'Maple#Harbor42' -- --as admin create carol --profile 2
show show carol
step "carol logs in"
login carol 'Maple#Harbor42'
step "carol changes her password: the current one, then the new one"
feed 'Maple#Harbor42' 'Cedar#Window57' -- --as carol passwd carol
login carol 'Cedar#Window57'
step "admin renames carol to carla; the name-service cache is told to reload"
show --as admin rename carol carla
ran_as_root 2
step "admin moves carla to the operators"
show --as admin set-profile carla 1
show groups carla
step "Three wrong passwords lock carla; then even the right one is refused"
login carla 'Wrong#1'
login carla 'Wrong#2'
login carla 'Wrong#3'
login carla 'Cedar#Window57'
show tally carla
step "admin unlocks carla: pam_tally2 resets the count"
show --as admin unlock carla
ran_as_root 1
login carla 'Cedar#Window57'
step "admin disables carla: logins are refused"
show --as admin disable carla
login carla 'Cedar#Window57'
step "admin removes carla; the main account cannot be removed"
show --as admin remove carla
show show carla
show --as admin --json remove admin
show list

# A software update brings the next version's system accounts and groups (/etc/*.orig); the
# migration rebuilds the account files from them and carries the managed accounts over.  The
# next version drops the profile maintainers: tech moves to viewers and is disabled.
step "A software update: the account files migrate to the next version"
show migrate
show show tech
login tech 'Tech#2026'
echo
