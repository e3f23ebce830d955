#!/usr/bin/env python3
"""Tables of the benchmarks' figures, made from tvc_bench's own JSON output.

    report.py RUN.json                    the tables, with the targets, on standard output
    report.py --armhf RUN.json            a run under qemu: no targets, and no rows of
                                          shadow-utils, whose tools ran natively there
    report.py --readme README.md --marker NAME [--check] [--armhf] RUN.json
                                          the tables in place of the text between
                                          "<!-- NAME:begin -->" and "<!-- NAME:end -->";
                                          --check: only compare, exit 1 when they differ

Every figure in the README's performance section comes from here, so that none is copied by
hand.  A row whose benchmarks are missing from the run (a filtered run) is left out; a figure
that misses its target is marked "missed".
"""
import argparse
import json
import re
import sys

SIZES = (10, 1000, 10000, 100000)


def load(path):
    with open(path, encoding="utf-8") as file:
        run = json.load(file)
    figures = {}
    # With repetitions, the median of each benchmark's repetitions stands for it.
    medians = [b for b in run["benchmarks"] if b.get("aggregate_name") == "median"]
    chosen = medians or [b for b in run["benchmarks"] if b.get("run_type") == "iteration"]
    for bench in chosen:
        if bench.get("error_occurred"):
            continue
        parts = [part for part in bench["run_name"].split("/")
                 if not re.match(r"(min_time|iterations|repeats):|real_time$", part)]
        key = "/".join(re.sub(r"^(entries|disk):", "", part) for part in parts)
        scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[bench["time_unit"]]
        bench["real_ms"] = bench["real_time"] * scale
        bench["cpu_ms"] = bench["cpu_time"] * scale
        figures[key] = bench
    return run["context"], figures


def ms(value):
    if value >= 100:
        return f"{value:.0f} ms"
    if value >= 10:
        return f"{value:.1f} ms"
    if value >= 1:
        return f"{value:.2f} ms"
    return f"{value * 1000:.0f} µs" if value >= 0.1 else f"{value * 1000:.1f} µs"


def verdict(met, targets):
    return "" if not targets else (" | met" if met else " | **missed**")


def table(header, rows, targets, target_title):
    if not rows:
        return []
    head = header + ([target_title] if targets else [])
    lines = ["| " + " | ".join(head) + " |", "|" + "|".join("---:" if i else "---" for i in range(len(head))) + "|"]
    return lines + rows + [""]


def report(context, f, targets, tools=True):
    repeated = " Each figure is the median of the run's repetitions." if any(
        b.get("aggregate_name") == "median" for b in f.values()) else ""
    out = [f"Run of {context.get('date', '?')} on {context.get('num_cpus', '?')} CPUs at "
           f"{context.get('mhz_per_cpu', '?')} MHz ({context.get('host_name', '?')}).{repeated}", ""]

    rows = []
    for disk, where in (("0", "tmpfs"), ("1", "disk")):
        for n in SIZES:
            ours, theirs = f.get(f"BM_CreateRemove/{n}/{disk}"), f.get(f"BM_UseraddUserdel/{n}/{disk}")
            if ours and not tools:
                rows.append(f"| {where} | {n:,} | {ms(ours['real_ms'])} | {ms(ours['cpu_ms'])} |")
            elif ours and theirs:
                ratio = theirs["real_ms"] / ours["real_ms"]
                rows.append(f"| {where} | {n:,} | {ms(ours['real_ms'])} | {ms(ours['cpu_ms'])} | "
                            f"{ms(theirs['real_ms'])} | {ratio:.1f}{verdict(ratio >= 10, targets)} |")
    out += table(["/etc on", "fillers", "create + remove", "its CPU"] +
                 (["useradd + userdel", "ratio"] if tools else []), rows, targets, "target ≥ 10")

    rows = []
    for n in SIZES:
        ours, copy = f.get(f"BM_AddRemove/{n}"), f.get(f"BM_CopyAndSync/{n}")
        if ours and copy:
            # Two rewrites of both files per iteration.
            ratio = ours["real_ms"] / copy["real_ms"]
            rows.append(f"| {n:,} | {ms(ours['real_ms'] / 2)} | {ms(ours['cpu_ms'] / 2)} | "
                        f"{ms(copy['real_ms'] / 2)} | {ms(copy['cpu_ms'] / 2)} | {ratio:.2f}"
                        f"{verdict(ratio <= 1.5, targets)} |")
    out += table(["entries per file", "rewrite", "its CPU", "copy, fsync, rename", "its CPU", "ratio"], rows,
                 targets, "target ≤ 1.5")

    login = f.get("BM_Login")
    if login:
        rows = [f"| {p} | {login[f'library_{p}_ms']:.2f} ms | {login[f'bare_pam_{p}_ms']:.2f} ms | "
                f"{login[f'ratio_{p}']:.2f}{verdict(login[f'ratio_{p}'] <= 1.2, targets)} |" for p in ("p50", "p99")]
        out += table(["1 000 logins", "through the library", "bare PAM", "ratio"], rows, targets, "target ≤ 1.2")

    rows = []
    for key, what in (("BM_CreateRemove/100000/0", "create + remove, 100 000 fillers"),
                      ("BM_AddRemove/100000", "rewrites of 100 000-entry files")):
        if key in f and "peak_rss_kib" in f[key]:
            kib = f[key]["peak_rss_kib"]
            rows.append(f"| {what} | {kib:.0f} KiB{verdict(kib <= 2048, targets)} |")
    out += table(["operation", "peak resident memory above the start"], rows, targets, "target ≤ 2 MiB")

    rows = []
    for caller in ("admin", "root"):
        for n in (0, 10000):
            bench = f.get(f"BM_CheckRight/{caller}/{n}")
            if bench:
                # The target is for the device's own files; the large files show how it grows.
                mark = verdict(bench["real_ms"] * 1000 <= 20, targets) if n == 0 else (" | –" if targets else "")
                files = "sample device" if n == 0 else f"{n:,} accounts added"
                rows.append(f"| {caller} | {files} | {ms(bench['real_ms'])}{mark} |")
    out += table(["caller", "files", "rights check"], rows, targets, "target ≤ 20 µs")

    rows = []
    for row in (("BM_CreateRemovePlaintext/skip_check", "createUser, plaintext, rules skipped + removeUser"),
                       ("BM_CreateRemovePlaintext/pam_check", "createUser, plaintext, rules checked + removeUser"),
                       ("BM_Reset", "reset, updateAnyUserPassword (plaintext)"),
                       ("BM_Chpasswd/sha512_tally", "chpasswd -c SHA512 + count reset", True),
                       ("BM_ResetStoredHash", "reset with a stored hash, updateUserWithEncryptedPassword"),
                       ("BM_Chpasswd/encrypted_tally", "chpasswd -e + count reset", True),
                       ("BM_ResetShadowEntry", "shadow transaction of a reset, hash given"),
                       ("BM_Chpasswd/encrypted", "chpasswd -e", True)):
        if len(row) == 3 and not tools:
            continue
        name, what = row[:2]
        cells = [f.get(f"{name}/{n}") for n in SIZES]
        if any(cells):
            rows.append(f"| {what} | " + " | ".join(ms(c["real_ms"]) if c else "" for c in cells) + " |")
    if rows:
        out += ["| other operations, fillers | " + " | ".join(f"{n:,}" for n in SIZES) + " |",
                "|---|" + "---:|" * len(SIZES)] + rows + [""]

    single = [(key, what) for key, what in (("BM_CryptPwd", "cryptPwd"), ("BM_TallyReset", "failed-login count reset"),
                                            ("BM_UserUpdateState/0", "User + updateState, sample device"),
                                            ("BM_UserUpdateState/10000", "User + updateState, 10 000 accounts added"))
              if key in f]
    if single:
        out += ["| single costs | |", "|---|---:|"] + [f"| {what} | {ms(f[key]['real_ms'])} |" for key, what in single]
        out += [""]
    return "\n".join(out).rstrip("\n") + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("run")
    parser.add_argument("--armhf", action="store_true")
    parser.add_argument("--readme")
    parser.add_argument("--marker", default="bench")
    parser.add_argument("--check", action="store_true")
    args = parser.parse_args()
    context, figures = load(args.run)
    text = report(context, figures, targets=not args.armhf, tools=not args.armhf)
    if not args.readme:
        sys.stdout.write(text)
        return 0
    with open(args.readme, encoding="utf-8") as file:
        readme = file.read()
    begin, end = f"<!-- {args.marker}:begin -->\n", f"<!-- {args.marker}:end -->"
    if begin not in readme or end not in readme:
        sys.exit(f"report.py: {args.readme} has no {begin.strip()} ... {end} section")
    head, rest = readme.split(begin, 1)
    updated = head + begin + text + end + rest.split(end, 1)[1]
    if args.check:
        if updated != readme:
            sys.exit(f"report.py: the {args.marker} tables of {args.readme} are not those of {args.run} "
                     "(make bench-readme writes them)")
        return 0
    with open(args.readme, "w", encoding="utf-8") as file:
        file.write(updated)
    return 0


if __name__ == "__main__":
    sys.exit(main())
