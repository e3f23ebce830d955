#!/usr/bin/env bash
# armhf_smoke.sh WEBD - the cross-built tvc-webd, started under qemu inside the device sandbox
# (binfmt_misc, QEMU_LD_PREFIX naming the sysroot), answers its API over plain HTTP on a loopback
# port: a login, the account list, a refused CSRF token, a logout; then it stops on SIGTERM.
set -euo pipefail

webd=$1
work=$(mktemp -d)
"$webd" --http --listen 127.0.0.1 --port 0 --port-file "$work/port" >"$work/log" 2>&1 &
pid=$!
trap 'kill $pid 2>/dev/null || true; wait $pid 2>/dev/null || true; rm -rf "$work"' EXIT
fail() { echo "armhf_smoke: $*" >&2; cat "$work/log" >&2; exit 1; }
for _ in {1..300}; do [[ -s $work/port ]] && break; kill -0 $pid 2>/dev/null || fail "tvc-webd did not start"; sleep 0.1; done
url=http://127.0.0.1:$(<"$work/port")

api() { # METHOD PATH [BODY] -> the status; the answer in $work/body, cookies in $work/jar
    local body=()
    [[ $1 == GET ]] || body=(-H 'Content-Type: application/json' --data-raw "${3-}")
    curl -s -o "$work/body" -w '%{http_code}' -b "$work/jar" -c "$work/jar" -X "$1" \
        -H "X-CSRF-Token: ${csrf-}" "${body[@]}" "$url$2"
}
[[ $(api POST /api/login '{"name":"admin","password":"Admin#2026"}') == 200 ]] || fail "login refused"
csrf=$(sed -n 's/.*"csrf":"\([0-9a-f]*\)".*/\1/p' "$work/body")
[[ $(api GET /api/accounts) == 200 ]] || fail "GET /api/accounts refused"
for name in admin operator viewer tech guest; do
    grep -q "\"name\":\"$name\"" "$work/body" || fail "$name missing from the account list"
done
[[ $(csrf=0000 api POST /api/logout) == 403 ]] || fail "a wrong CSRF token was taken"
[[ $(api POST /api/logout) == 204 ]] || fail "logout refused"
[[ $(api GET /api/session) == 401 ]] || fail "the session outlived its logout"

kill -TERM $pid
for _ in {1..100}; do kill -0 $pid 2>/dev/null || break; sleep 0.1; done
kill -0 $pid 2>/dev/null && fail "tvc-webd did not stop on SIGTERM"
wait $pid || fail "tvc-webd stopped with status $?"
echo "armhf_smoke: passed"
