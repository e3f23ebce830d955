#!/usr/bin/env bash
# umctl_test.sh UMCTL SANDBOX
# Runs umctl against the sample device of tools/sandbox/tvc-sandbox (a fresh one per run) and
# checks its output and exit status.  Exits 77 (skipped) when no sandbox can be built, unless
# CI=true, where that is a failure.  TVC_PAM_DIR, when set, reaches the sandbox, which then
# installs the sample device's PAM stack.
set -uo pipefail

umctl=$1
sandbox=$2
passed=0
failed=0
# Scratch space in the directory the test runs in (the build tree), not the host's /tmp.
scratch=$(mktemp -d "$PWD/umctl_test.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

if ! reason=$("$sandbox" -- true 2>&1); then
    echo "umctl_test: $reason"
    [[ ${CI-} == true ]] && exit 1
    exit 77
fi

# Runs inside the sandbox: the shell commands `before`, umctl with its output and status into the
# scratch directory, then the shell test `after` over the device's files, with helpers: reloads (how many times the
# name-service cache was told to reload), ran LINE (the command log holds LINE), unchanged
# (passwd and shadow are as the sandbox wrote them), login NAME PASSWORD (its answer),
# plant NAME UID (appends a locked viewer NAME straight to passwd and shadow, for names that
# umctl would not create) and one_json (the run's stdout is one line holding one JSON object in
# valid UTF-8; a failure's object carries "error", "code" and "detail", a refusal by can says so).
# shellcheck disable=SC2016 # expanded by the inner shell
inside='scratch=$1 before=$2 after=$3 umctl=$4
reloads() { grep -cxF "sudo [/etc/init.d/S46unscd] [reload]" /var/log/tvc-commands.log; }
ran() { grep -qxF "$1" /var/log/tvc-commands.log; }
unchanged() { cmp -s /etc/passwd "$TVC_SANDBOX_PRISTINE/passwd" && cmp -s /etc/shadow "$TVC_SANDBOX_PRISTINE/shadow"; }
login() { "$umctl" --json login "$1" --password-stdin <<<"$2" 2>/dev/null; }
plant() {
    printf "%s:x:%s:10002::/home/admin:/bin/sh\n" "$1" "$2" >>/etc/passwd
    printf "%s:!:20454:0:99999:7:::\n" "$1" >>/etc/shadow
}
one_json() {
    python3 -c "import json, sys
lines = sys.stdin.buffer.read().decode().splitlines()
answer = json.loads(lines[0])
assert len(lines) == 1 and isinstance(answer, dict)
assert sys.argv[1] == \"0\" or answer.get(\"allowed\") is False or {\"error\", \"code\", \"detail\"} <= answer.keys()" "$(<"$scratch/status")" <"$scratch/out"
}
shift 3
eval "$before"
"$@" >"$scratch/out" 2>"$scratch/err"
echo $? >"$scratch/status"
eval "$after"'

# [before=SETUP] [after=TEST] [within=SECONDS] expect STATUS STDOUT STDERR -- ARGS...
# One umctl run; STDOUT and STDERR are glob patterns the whole output must match.  SETUP runs
# first in the same sandbox; TEST, when given, must then succeed there: the run's effect.
# WITHIN: the sandboxed run, start-up included, takes less than that many seconds.
expect() {
    local want=$1 out_pattern=$2 err_pattern=$3
    shift 4
    local status=none effect=0 started elapsed
    rm -f "$scratch/status"
    started=$(date +%s%N)
    "$sandbox" -- bash -c "$inside" - "$scratch" "${before-}" "${after-true}" "$umctl" "$@" || effect=$?
    elapsed=$((($(date +%s%N) - started) / 1000000))
    [[ -f $scratch/status ]] && status=$(<"$scratch/status")
    # The words as the shell would quote them: names with control characters stay on the line.
    local out err shown
    printf -v shown ' %q' "$@"
    out=$(<"$scratch/out")
    err=$(<"$scratch/err")
    # shellcheck disable=SC2053 # the right-hand sides are patterns on purpose
    if [[ $status == "$want" && $out == $out_pattern && $err == $err_pattern && $effect == 0 ]] &&
        ((${within-0} == 0 || elapsed < within * 1000)); then
        passed=$((passed + 1))
        echo "ok: umctl$shown"
    else
        failed=$((failed + 1))
        echo "FAILED: umctl$shown (status $status, expected $want)"
        echo "  stdout: $out"
        echo "  stderr: $err"
        ((effect == 0)) || echo "  failed afterwards: ${after-}"
        ((${within-0} == 0 || elapsed < within * 1000)) || echo "  took ${elapsed} ms, more than ${within} s"
    fi
}

nl=$'\n'

# Lookups by name and by id; the profile gid comes from the primary group or, for accounts
# whose primary group is no profile, from the first profile group they belong to.
expect 0 "uid: 10000${nl}name: admin${nl}profile gid: 10000" "" -- user admin
expect 0 "uid: 10002${nl}name: viewer${nl}profile gid: 10002" "" -- user 10002
expect 0 "uid: 10004${nl}name: guest${nl}profile gid: 10002" "" -- user guest
expect 0 "uid: 2002${nl}name: plainuser${nl}profile gid: 10002" "" -- user plainuser
expect 0 "uid: 2003${nl}name: svc-backup${nl}profile gid: 100" "" -- user 2003
expect 0 "gid: 10002${nl}name: viewers" "" -- group viewers
expect 0 "gid: 4101${nl}name: role-user-manager" "" -- group 4101

# An unknown account reads the same whichever command or path meets it, and is answered at once
# (the library pauses before it reports an unknown name; umctl looks the names up first):
# status 1, one line on stderr, and no debug log line before it.  A web login goes through
# PAM as the web server's would; only its audit event precedes the message.
for words in "user nosuch" "show nosuch" "rename nosuch x" "set-profile nosuch 1" "enable nosuch" \
    "disable nosuch" "remove nosuch" "unlock nosuch" "passwd nosuch" "reset-password nosuch" "groups nosuch" \
    "tally nosuch" "can ReadUser nosuch" "--as nosuch list" "--as nosuch can ReadUser"; do
    # shellcheck disable=SC2086 # the command's words
    within=2 expect 1 "" "umctl: no such account: nosuch" -- $words <<<'Tulip#Garden42'
done
within=2 expect 1 "" "umctl: no such account: 4242" -- user 4242
within=2 expect 1 "" "umctl: no such account: 10000" -- --as 10000 whoami
expect 1 "" "umctl: log: *Authentication failed  <nosuch>\"${nl}umctl: no such account: nosuch" \
    -- login nosuch --password-stdin <<<'Tulip#Garden42'
after=one_json expect 1 '{"error":"no such account: nosuch","code":5,"status":1,"detail":{"answer":{"classCode":0,"errorCode":5},*}}' \
    "umctl: no such account: nosuch" -- --json show nosuch
after=one_json expect 1 '{"error":"no such group: nosuch",*}' "umctl: no such group: nosuch" -- group nosuch --json

# The command line: per-command help, --opt=value, --, global options before or after the
# command; a misspelt option is named with its command.  Status 2 and exactly one line on stderr.
for command in user group list show can create rename set-profile enable disable remove unlock passwd \
    reset-password check-password login settings profiles groups whoami tally hash migrate help; do
    expect 0 "*${nl}Usage: umctl $command *Example:${nl}  *umctl*" "" -- "$command" --help
done
expect 0 "*${nl}Usage: umctl set-profile [[]OPTIONS] NAME ID${nl}*" "" -- help set-profile
expect 0 "umctl: *Commands:*settings*Exit status: 0 done; 1 not found, or the library refused; 2 bad*" "" -- help
expect 2 "" "umctl: unknown command: nosuch (umctl --help lists them)" -- help nosuch
expect 2 "" "umctl: user: ACCOUNT is required (umctl user --help)" -- user
expect 2 "" "umctl: unexpected argument for group: b (umctl group --help)" -- group a b
expect 2 "" "umctl: unexpected argument for passwd (passwords are never taken from the command line; umctl passwd --help)" -- passwd admin Secret#2026
expect 2 "" "umctl: unexpected argument for create (passwords are never taken from the command line; umctl create --help)" -- create carol --profile 2 --password-stdin=Secret#2026
expect 2 "" "umctl: unknown command: bogus (umctl --help lists them)" -- bogus
expect 2 "" "umctl: usage: umctl [[]OPTIONS] COMMAND*" --
expect 2 "" "umctl: id out of range: 99999999999" -- user 99999999999
expect 2 "" "umctl: unknown option for create: --bogus (umctl create --help)" -- create x --profile 2 --bogus
expect 2 "" "umctl: unknown option for login: --profil=2 (umctl login --help)" -- login viewer --profil=2
expect 2 "" "umctl: unknown option: --jsno (umctl --help lists them)" -- --jsno list
expect 1 "" "umctl: no such account: --weird" -- show -- --weird
expect 0 "allowed" "" -- can CreateUser --as=admin
expect 2 "" "umctl: --as needs an account name" -- list --as ""

# --json on every command: one line holding one JSON object, for an answer and for a failure.
while read -r status words; do
    # shellcheck disable=SC2086 # the command's words
    after=one_json expect "$status" "{*}" "*" -- --json $words <<<"Viewer#2026${nl}Tulip#Garden42"
done <<'EOF'
0 user admin
0 group 4101
0 list
0 show admin
0 can ReadUser admin
1 --as viewer can CreateUser
0 create carol --profile 2
0 rename operator op2
0 set-profile viewer 1
0 enable tech
0 disable tech
0 remove guest
0 unlock guest
0 passwd viewer
0 reset-password tech
0 check-password
0 login viewer --password-stdin
0 settings
0 profiles
0 groups admin
0 whoami
0 tally admin
0 hash
0 migrate
0 help show
1 login guest --password-stdin
1 remove admin
1 --as viewer disable tech
2 bogus
2 create x
2 hash Demo#2026
EOF

# The built-in configuration, including the trailing blank of the update script.
expect 0 "maxUser: 10${nl}baseUid: 10000${nl}*" "" -- settings
expect 0 "*${nl}userHome: \"/home/admin\"${nl}*" "" -- settings
expect 0 "*${nl}selfAccountRole: \"role-user-configure-self\"${nl}*" "" -- settings
expect 0 "*${nl}dbLockCount: 3${nl}*${nl}rootProfile: true${nl}updateFileScript: \"false \"" "" -- settings

# The device configuration file: the sandbox's sample at the default path; none there, the
# library's defaults; one named with --config must exist; a file umctl cannot use is refused
# with its line, or the reason it is not trusted, before any command runs.
conf=/etc/tvc-usermanagement/device.conf
before="rm $conf" expect 0 "maxUser: 5${nl}*" "" -- settings
expect 2 "" "umctl: /nonexistent.conf: No such file or directory" -- --config /nonexistent.conf settings
before="printf '[settings]\\nmaxUser = 0\\n' >$conf" expect 2 "" "umctl: $conf:2: 0 is out of range 1..60000" -- profiles
before="chmod 0666 $conf" expect 2 "" "umctl: $conf: writable by accounts other than root" -- profiles

# The sample catalogue and the groups an account holds.
expect 0 "10000 administrators${nl}4101 role-user-manager*4201 log-read" "" -- groups admin
expect 0 "10002 viewers${nl}4101 role-user-manager" "" -- groups 2002
expect 0 "Profile:[[]www-data] id[[]-2] gid[[]33]*Profile:[[]viewers] id[[]2] gid[[]10002]*" "" -- profiles
# A group line longer than any fixed lookup buffer hides neither its own profile nor the ones after it.
before="sed -i \"s/^viewers:x:10002:.*/&$(printf ',member%05d' $(seq 2000))/\" /etc/group" \
    expect 0 "*Profile:[[]viewers] id[[]2]*Profile:[[]maintainers] id[[]3]*" "" -- profiles

# The ids of the calling thread; the failed-login count of an account (the sample device
# records none), by name or uid.
expect 0 "ruid: 0${nl}euid: 0${nl}suid: 0${nl}rgid: 0${nl}egid: 0${nl}sgid: 0${nl}groups: [0-9]*" "" -- whoami
expect 0 "uid: 10001${nl}failures: [0-9]*" "" -- tally operator
expect 0 "uid: 10000${nl}failures: [0-9]*" "" -- tally 10000

# The managed accounts with their profile and state, as a table and as JSON; one account in detail.
expect 0 "NAME *UID *PROFILE *ACTIVE *PASSWORD-EXPIRED *LOCKED *ACCOUNT-EXPIRED${nl}admin *10000 *administrators *yes *no *no *no${nl}*${nl}guest *10004 *viewers *yes *no *no *no" "" -- list
expect 0 '{"accounts":[[]{"name":"admin","uid":10000,"gid":10000,"profile":"administrators","profileId":0,"active":true,"passwordExpired":false,"locked":false,"accountExpired":false},{"name":"operator"*}]}' "" -- list --json
expect 0 "name: plainuser${nl}uid: 2002${nl}gid: 10002${nl}profile: viewers (id 2, gid 10002)${nl}active: yes${nl}*${nl}groups:${nl}  10002 viewers${nl}  4101 role-user-manager" "" -- show plainuser
expect 0 '{"name":"tech",*"groups":[[]10003,4102,4104,4201]}' "" -- --json show 10003

# Rights, judged with the thread acting as the --as account: a user manager, a viewer asking
# about itself and about another account, a profile without the read right.
expect 0 "allowed" "" -- --as admin can CreateUser
expect 1 "refused" "" -- --as viewer can createuser
expect 0 "allowed" "" -- --as viewer can UpdatePassword viewer
expect 1 "refused" "" -- --as viewer can UpdatePassword 10004
expect 1 "" "umctl: not authorized" -- --as svc-backup show admin
expect 0 "ruid: 0${nl}euid: 10002${nl}suid: 0${nl}rgid: 0${nl}egid: 10002${nl}sgid: 0${nl}groups: 4" "" -- --as viewer whoami
expect 2 "" "umctl: unknown action: Fly (one of CreateUser, *UpdatePassword)" -- can Fly

# Logins through the sample device's login service (password on stdin): accepted, refused
# with the audit line of the failure, and the web client's answer in the JSON detail.
expect 0 "login ok: viewer" "" -- login viewer --password-stdin <<<'Viewer#2026'
expect 1 "" "umctl: log: category=9 id=4 severity=notice *<viewer>\"${nl}umctl: login refused (wrong password, or the account is locked or disabled): viewer" -- login viewer --password-stdin <<<'Wrong#2026'
expect 1 '{"error":"root may not log in here","code":0,*"answer":{"classCode":1,"errorCode":0}*}' "umctl: root may not log in here" -- --json login root --password-stdin <<<'Root#2026'

# The life cycle, each step run as root on a fresh device, with its audit line and its effect
# on the account files and the command log.  Passwords come from standard input.  A rename or
# a profile change makes the name-service cache reload once; a reset never does, but, like
# enabling and unlocking, resets the failed-login count with pam_tally2.  A password that must
# be changed still logs in, and is then refused as expired (301).
pw='Tulip#Garden42'
tally='pam_tally2 [-f] [/var/log/tallylog] [-r] [-u]'
after="grep -q '^alice:x:10005:10002:' /etc/passwd && login alice '$pw' >/dev/null" \
    expect 0 "created alice uid 10005" "*text=\"User account - created <alice>\"" -- create alice --profile=2 <<<"$pw"
after="grep -q '^bob:x:10005:10003:' /etc/passwd && grep -q '^bob:!![^:]*:0:' /etc/shadow" \
    expect 0 "created bob uid 10005" "*created <bob>\"" -- create bob --profile 3 --disabled --must-change --password-stdin <<<"$pw"
after="((\$(reloads) == 1)) && grep -q '^op2:x:10001:10001:' /etc/passwd && grep -q '^op2:' /etc/shadow" \
    expect 0 "renamed operator to op2" "*text=\"User account - name changed from <operator> to <op2>\"" -- rename operator op2
after="((\$(reloads) == 1)) && grep -q '^viewer:x:10002:10001:' /etc/passwd" \
    expect 0 "moved viewer to profile operators (id 1)" "*profile of <viewer> changed from <viewers> to <operators>\"" \
    -- set-profile viewer 1
after="grep -q '^tech:!!' /etc/shadow" expect 0 "disabled tech" "*text=\"User account - deactivated <tech>\"" -- disable tech
after="unchanged && ran '$tally [tech]'" expect 0 "enabled tech" "" -- enable tech
after="ran '$tally [guest]'" expect 0 "unlocked guest" "" -- unlock guest
# A locked account, unlocked by the user manager: the event, and the right password logs in again.
lock="for wrong in 1 2 3; do login guest Wrong#\$wrong >/dev/null; done"
before=$lock after="login guest Guest#2026 >/dev/null" \
    expect 0 "unlocked guest" "*text=\"User account - unlocked <guest>\"" -- --as admin unlock guest
after="! grep -q '^guest:' /etc/passwd /etc/shadow" expect 0 "removed guest" "*text=\"User account - deleted <guest>\"" \
    -- remove guest
after="login viewer '$pw' >/dev/null" expect 0 "password changed: viewer" "*text=\"User account - password changed\"" \
    -- passwd viewer <<<"Viewer#2026$nl$pw"
expired="login tech '$pw' | grep -q '\"errorCode\":301'"
after="((\$(reloads) == 0)) && ran '$tally [tech]' && grep -q '^tech:[^:]*:0:' /etc/shadow && $expired" \
    expect 0 "password reset: tech" "*text=\"User account - password reset <tech>\"" -- reset-password tech --must-change <<<"$pw"
expect 0 "password accepted" "" -- check-password --password-stdin <<<"$pw"

# Refusals leave the files as they were: the library's rights check judging a viewer, the main
# account, a wrong current password, a password the rules refuse.
for words in "create x --profile 2" "rename operator x" "set-profile operator 2" "disable operator" \
    "remove operator" "reset-password operator" "unlock operator" migrate; do
    # shellcheck disable=SC2086 # the command's words
    after=unchanged expect 1 '{"error":"not authorized","code":302,*"answer":{"classCode":1,"errorCode":302}*}' "umctl: not authorized" \
        -- --json --as viewer $words <<<"$pw"
done
# A user manager acting on the web side never reaches root, nor rebuilds it with a migration.
for words in "reset-password root" "disable www-data" migrate; do
    # shellcheck disable=SC2086 # the command's words
    after=unchanged expect 1 '{"error":"not authorized to change a system account*","code":305,*}' \
        "umctl: not authorized to change a system account*" -- --json --as admin $words <<<"$pw"
done
after=unchanged expect 1 '{"error":"the main account cannot be removed: admin","code":3,*}' \
    "umctl: the main account cannot be removed: admin" -- --json remove admin
after=unchanged expect 1 '{"error":"the main account cannot be disabled: admin","code":4,*}' \
    "umctl: the main account cannot be disabled: admin" -- --json disable admin
after=unchanged expect 1 '{"error":"wrong password: viewer","code":18,*}' "umctl: wrong password: viewer" \
    -- --json passwd viewer <<<"Wrong#2026$nl$pw"
after=unchanged expect 1 '{"error":"password refused: too short","code":33,*"text":"BAD PASSWORD: *"}}' \
    "umctl: password refused: too short" -- --json create x --profile 2 <<<'T#1a'
expect 1 "" "umctl: password refused: too short" -- check-password <<<'T#1a'

# Bad command lines and a missing password.
expect 2 "" "umctl: create: --profile is required (umctl create --help)" -- create x
expect 2 "" "umctl: not a profile id: x" -- set-profile viewer x
expect 2 "" "umctl: no password on standard input" -- check-password </dev/null

# A SHA-512 crypt hash with a 16-character salt; a password beyond the 255-byte limit is refused,
# and so is a password on the command line.
salt='[./0-9A-Za-z]'
expect 0 "\$6\$$salt$salt$salt$salt$salt$salt$salt$salt$salt$salt$salt$salt$salt$salt$salt$salt\$*" "" -- hash <<<'Demo#2026'
expect 1 "" "umctl: password too long" -- hash --password-stdin <<<"$(printf '%0256d' 0)"
expect 2 "" "umctl: hash: a password is never taken from the command line*" -- hash 'Demo#2026'

# The migration to the next software version (the sandbox's /etc/*.orig): tech's profile is gone,
# the others keep theirs and their passwords; run again, it changes nothing more.
migrated="Updating System files...${nl}Updating Profiles...${nl}kept admin profile administrators${nl}kept guest profile viewers"
migrated+="${nl}kept operator profile operators"
after="cmp -s /etc/group /etc/group.orig && login operator Operator#2026 >/dev/null && ! login tech Tech#2026 >/dev/null" \
    expect 0 "$migrated${nl}moved tech to viewers and disabled${nl}kept viewer profile viewers${nl}added system account sysupdate" \
    "*text=\"User account - deactivated <tech>\"${nl}*text=\"User account - profile of <tech> changed from <nogroup> to <viewers>\"" -- migrate
before="\"\$umctl\" migrate >/dev/null 2>&1; cat /etc/passwd /etc/shadow /etc/group >\"\$scratch/first\"" \
    after="cat /etc/passwd /etc/shadow /etc/group | cmp -s - \"\$scratch/first\"" \
    expect 0 "$migrated${nl}kept tech profile viewers${nl}kept viewer profile viewers" "" -- migrate

# Names that are not plain text.  Control characters in an echoed name are escaped (\n, \xHH),
# so each message stays one line and a name cannot forge another; ordinary names print as they
# are.  The log line quotes its free-text fields, so a name holding blanks, quotes or "text="
# adds no field.  JSON is valid UTF-8 whatever bytes a name holds: U+FFFD for each invalid byte.
replacement=$'\xef\xbf\xbd'  # U+FFFD in UTF-8
expect 1 "" 'umctl: no such account: x\\numctl: log: forged' -- show $'x\numctl: log: forged'
expect 1 "" 'umctl: no such account: a\\x1b[[]31mb' -- rename $'a\e[31mb' y
expect 2 "" 'umctl: unknown command: bo\\ngus (umctl --help lists them)' -- $'bo\ngus'
before="plant \$'e\\e[31mx' 10005" expect 0 "*${nl}guest *10004 *viewers *yes *no *no *no${nl}e\\\\x1b[[]31mx *10005 *viewers *yes*" "" -- list
forged='a" text="forged'
q='a\\" text=\\"forged' # the name as the log line writes it, as a pattern
before="plant '$forged' 10005" \
    expect 1 "" "umctl: log: category=9 id=4 severity=notice ip=\"cli\" user=\"$q\" text=\"Session - Authentication failed  <$q>\"${nl}umctl: login refused (*): $forged" \
    -- --as "$forged" login "$forged" --password-stdin <<<'Wrong#2026'
before="plant \$'caf\\351' 10005" after=one_json expect 0 '{"accounts":[[]{"name":"admin",*,{"name":"caf'"$replacement"'","uid":10005,*}]}' "" -- --json list
before="plant \$'caf\\351' 10005" after=one_json expect 0 '{"name":"caf'"$replacement"'","uid":10005,*}' "" -- --json show 10005
# A backslash and control characters (a newline cannot stand in the account files) are escaped.
before="plant 'a\\b' 10005" after=one_json expect 0 '{"name":"a\\\\b","uid":10005,*}' "" -- --json show 10005
before="plant \$'a\\001b' 10005" after=one_json expect 0 '{"name":"a\\u0001b","uid":10005,*}' "" -- --json show 10005
before="plant \$'a\\tb' 10005" after=one_json expect 0 '{"name":"a\\tb","uid":10005,*}' "" -- --json show 10005

echo "$passed passed, $failed failed"
((failed == 0))
