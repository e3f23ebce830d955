#!/usr/bin/env bash
# bench-web.sh WEBD LOGIN_BENCH - the figures of `make bench-web`, run inside the device sandbox
# (tools/sandbox/tvc-sandbox with the sample device's PAM stack).
#
# Starts WEBD on a loopback port, logs in BENCH_CLIENTS sessions (64; admin and viewer in turn),
# then wrk keeps BENCH_CLIENTS connections busy for BENCH_S seconds (20) with web.lua's mix of
# account list, one account and session requests.  Afterwards the server must still run and its
# log must hold no identity mismatch ("kept another identity": it stops on one).  Last, LOGIN_BENCH times BENCH_LOGINS
# (200) logins next to the bare PAM transaction.  BENCH_THREADS (16) is the server's thread pool.
# Exits 1 when a request failed, the server stopped or logged a mismatch.
set -euo pipefail

webd=$1 login_bench=$2
seconds=${BENCH_S:-20} clients=${BENCH_CLIENTS:-64} threads=${BENCH_THREADS:-16} logins=${BENCH_LOGINS:-200}
here=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
work=$(mktemp -d)
"$webd" --http --listen 127.0.0.1 --port 0 --port-file "$work/port" --threads "$threads" >"$work/webd.log" 2>&1 &
pid=$!
trap 'kill $pid 2>/dev/null || true; wait $pid 2>/dev/null || true; rm -rf "$work"' EXIT
for _ in {1..100}; do [[ -s $work/port ]] && break; sleep 0.1; done
url=http://127.0.0.1:$(<"$work/port")

login() { # name password -> session token
    curl -sf -D - -o /dev/null -H 'Content-Type: application/json' \
        -d "{\"name\":\"$1\",\"password\":\"$2\"}" "$url/api/login" |
        sed -n 's/^set-cookie: tvc_session=\([0-9a-f]*\).*/\1/Ip'
}
for ((i = 0; i < clients; i++)); do
    if ((i % 2)); then login viewer 'Viewer#2026'; else login admin 'Admin#2026'; fi
done >"$work/sessions"
[[ $(grep -c . "$work/sessions") == "$clients" ]] || { echo "bench-web: the logins failed" >&2; exit 1; }

wrk -t2 -c"$clients" -d"$seconds"s -s "$here/web.lua" "$url" -- "$work/sessions" >"$work/wrk.out"
alive=yes
kill -0 $pid 2>/dev/null || alive=no
mismatches=$(grep -ci 'another identity\|mismatch' "$work/webd.log" || true)
"$login_bench" "${url##*:}" "$logins" >"$work/login.out"

field() { # file line-prefix key
    sed -n "s/^$2: .*\b$3=\([^ ]*\).*/\1/p" "$1"
}
load() { field "$work/wrk.out" load "$1"; }
errors=$(($(load not200) + $(load connect) + $(load read) + $(load write) + $(load timeout)))
ratio=$(field "$work/login.out" ratio 'login_p99\/bare_pam_p99')
printf '%s\n' "tvc-webd: $clients clients ($((clients / 2)) admin, $((clients - clients / 2)) viewer sessions), $threads server threads, ${seconds} s" \
    "| figure                          | value |" \
    "|---------------------------------|-------|" \
    "| requests per second             | $(load rps) ($(load requests) in $(load seconds) s) |" \
    "| latency p50 / p99 / max         | $(load p50_ms) / $(load p99_ms) / $(load max_ms) ms |" \
    "| errors                          | $errors (not 200: $(load not200), connect $(load connect), read $(load read), write $(load write), timeout $(load timeout)) |" \
    "| identity mismatches             | $mismatches (server still running: $alive) |" \
    "| login p50 / p99 ($logins, sequential) | $(field "$work/login.out" login p50_ms) / $(field "$work/login.out" login p99_ms) ms |" \
    "| bare PAM p50 / p99              | $(field "$work/login.out" bare-pam p50_ms) / $(field "$work/login.out" bare-pam p99_ms) ms |" \
    "| login p99 / bare PAM p99        | $ratio (target <= 1.5) |"
[[ $errors == 0 && $mismatches == 0 && $alive == yes ]]
