#!/usr/bin/env bash
# fuzz.sh - runs fuzz targets in the device sandbox and reports what they did.
#
# Usage: fuzz.sh regress SECONDS WORKDIR FUZZER
#        fuzz.sh campaign SECONDS WORKDIR FUZZER...
#
# A target NAME_fuzzer reads its corpus from tests/fuzz/corpus/NAME (seeds, minimised finds
# and every input that once crashed it) and, when tests/fuzz/options/NAME exists, takes the
# libFuzzer flags written there.  WORKDIR/NAME holds what a run finds and its artefacts.
#
#   regress   the corpus once, then SECONDS of fresh inputs; exit 1 on a crash, a leak or a
#             hang (the suites' regression run).
#   campaign  each target for SECONDS (FUZZ_RUNS caps the executions; FUZZ_JOBS targets at
#             once), then the inputs that found new coverage are merged into the corpus and a
#             crash's input is minimised next to its artefact; one line per target: executions,
#             coverage (edges, features), corpus size, crashes.  Exit 1 when one crashed.
#
# Every run is in the sandbox: targets that lock or rewrite the account files touch only its
# throw-away /etc.  Without a sandbox the run is skipped (exit 77), or fails under CI=true.
set -Euo pipefail

SELF=$(readlink -f "${BASH_SOURCE[0]}")
HERE=$(dirname "$SELF")
SANDBOX=$HERE/../../tools/sandbox/tvc-sandbox
readonly SELF HERE SANDBOX

usage() {
    echo "usage: fuzz.sh regress|campaign SECONDS WORKDIR FUZZER..." >&2
    exit 2
}
[[ $# -ge 4 && ( $1 == regress || $1 == campaign ) && $2 =~ ^[0-9]+$ ]] || usage
mode=$1 seconds=$2 work=$3
shift 3

if [[ -z ${TVC_SANDBOX:-} && -z ${TVC_SANDBOX_ERROR:-} ]]; then
    exec "$SANDBOX" --fallback -- "$SELF" "$mode" "$seconds" "$work" "$@"
fi
if [[ -z ${TVC_SANDBOX:-} ]]; then
    echo "fuzz.sh: skipped, no device sandbox: $TVC_SANDBOX_ERROR" >&2
    [[ ${CI:-} == true ]] && exit 1
    exit 77
fi

name_of() { local base; base=$(basename "$1"); echo "${base%_fuzzer}"; }

# The flags every run shares: hangs and memory hogs are failures too.
flags_of() { # name
    local flags=(-timeout=10 -rss_limit_mb=2048 -print_final_stats=1)
    [[ -f $HERE/options/$1 ]] && read -r -a extra <"$HERE/options/$1" && flags+=("${extra[@]}")
    echo "${flags[@]}"
}

# One target: fuzzes into WORKDIR/NAME/new, the repository's corpus read along; the log in
# WORKDIR/NAME/log.
run_one() { # fuzzer seconds [flags...]
    local fuzzer=$1 secs=$2 name
    shift 2
    name=$(name_of "$fuzzer")
    local dir=$work/$name corpus=$HERE/corpus/$name
    mkdir -p "$dir/new" "$dir/artifacts" "$corpus"
    rm -f "$dir"/artifacts/*
    # shellcheck disable=SC2046
    "$fuzzer" $(flags_of "$name") -max_total_time="$secs" -artifact_prefix="$dir/artifacts/" "$@" \
        "$dir/new" "$corpus" >"$dir/log" 2>&1
}

# "NAME executions coverage features corpus crashes" out of a run's log.
summary() { # fuzzer
    local name dir
    name=$(name_of "$1")
    dir=$work/$name
    local execs cov ft corp crashes
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -1)
    cov=$(grep -o 'cov: [0-9]*' "$dir/log" | tail -1 | cut -d' ' -f2)
    ft=$(grep -o 'ft: [0-9]*' "$dir/log" | tail -1 | cut -d' ' -f2)
    corp=$(find "$HERE/corpus/$name" -type f | wc -l)
    crashes=$(find "$dir/artifacts" -type f ! -name '*.min' ! -name '*.log' | wc -l)
    printf '%-12s %12s %8s %9s %7s %8s\n' "$name" "${execs:-?}" "${cov:-?}" "${ft:-?}" "$corp" "$crashes"
}

header() { printf '%-12s %12s %8s %9s %7s %8s\n' target executions edges features corpus crashes; }

if [[ $mode == regress ]]; then
    fuzzer=$1
    # What an earlier regression run found is not kept: the run replays the corpus alone.
    rm -rf "${work:?}/$(name_of "$fuzzer")/new"
    if ! run_one "$fuzzer" "$seconds"; then
        name=$(name_of "$fuzzer")
        cat "$work/$name/log" >&2
        echo "fuzz.sh: $name failed; its input is in $work/$name/artifacts" >&2
        header; summary "$fuzzer"
        exit 1
    fi
    header; summary "$fuzzer"
    exit 0
fi

# campaign
runs=()
[[ -n ${FUZZ_RUNS:-} ]] && runs=(-runs="$FUZZ_RUNS")
export -f run_one name_of flags_of
export work HERE
printf '%s\n' "$@" | xargs -P "${FUZZ_JOBS:-1}" -I{} bash -c 'run_one "$1" "$2" "${@:3}" || true' _ {} "$seconds" "${runs[@]}"
status=0
for fuzzer in "$@"; do
    name=$(name_of "$fuzzer")
    dir=$work/$name
    # New coverage goes into the repository's corpus, minimised by the merge.  Edges only, not
    # hit counts: counting them keeps thousands of near-copies, and the regression run that
    # replays the corpus must stay a few seconds.
    "$fuzzer" -merge=1 -use_counters=0 "$HERE/corpus/$name" "$dir/new" >"$dir/merge.log" 2>&1 ||
        echo "fuzz.sh: merging $name's finds failed, see $dir/merge.log" >&2
    for artifact in "$dir"/artifacts/*; do
        [[ -f $artifact && $artifact != *.min && $artifact != *.log ]] || continue
        status=1
        "$fuzzer" -minimize_crash=1 -max_total_time=60 -exact_artifact_path="$artifact.min" "$artifact" \
            >"$artifact.log" 2>&1 || true
        echo "fuzz.sh: $name: $artifact (minimised: $artifact.min)" >&2
    done
done
header
for fuzzer in "$@"; do summary "$fuzzer"; done
exit $status
