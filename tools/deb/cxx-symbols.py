#!/usr/bin/env python3
"""cxx-symbols.py - the library's symbols file, demangled, from the symbols of several builds.

Usage: cxx-symbols.py VERSION SYMBOLS:ARCH... >debian/libtvc-usermanagement1.symbols

Each SYMBOLS is a file written by dpkg-gensymbols -O for one architecture, ARCH the Debian
architecture it was built for ("64" or "32" stand for arch-bits instead).
C++ symbols are written as (c++) lines with their demangled names, so that one file serves
every architecture; a symbol only some of the builds export is tagged with the builds' tags
(size_t and friends demangle differently on 32 and 64 bits).  Every symbol gets VERSION, the
first version that exports it, with a trailing ~ (1.0.0~): dpkg-gensymbols reports a symbol
as lost only when the package is newer than the symbol's version, so a symbol dated by the
package's own version could vanish unnoticed in that very version.
"""
import subprocess
import sys


def read(path):
    header, symbols = None, {}
    for line in open(path):
        if not line.startswith(" "):
            if header is None and line.strip():
                header = line.rstrip("\n")
            continue
        name, version = line.split()[:2]
        symbols[name] = version
    return header, symbols


def demangle(names):
    out = subprocess.run(["c++filt"], input="\n".join(names) + "\n", capture_output=True,
                         text=True, check=True).stdout.splitlines()
    return dict(zip(names, out))


def main(args):
    since = args.pop(0) + "~"
    builds = []
    for arg in args:
        path, tag = arg.rsplit(":", 1)
        header, symbols = read(path)
        names = [s.rsplit("@", 1)[0] for s in symbols]
        plain = demangle(names)
        entries = {}
        for symbol, version in symbols.items():
            name, at = symbol.rsplit("@", 1)
            text = plain[name]
            key = ("c++", text + "@" + at) if text != name else ("", symbol)
            entries[key] = version
        builds.append((tag, header, entries))
    header = builds[0][1]
    keys = sorted(set().union(*(b[2] for b in builds)), key=lambda k: (k[0] == "", k[1]))
    print(header)
    print("* Build-Depends-Package: libtvc-usermanagement-dev")
    for key in keys:
        having = [b[0] for b in builds if key in b[2]]
        version = since
        tags = []
        if len(having) != len(builds):
            if all(t in ("32", "64") for t in having):
                tags.append("arch-bits=" + "|".join(having))
            else:
                tags.append("arch=" + " ".join(having))
        if key[0]:
            tags.append("c++")
            name = '"' + key[1] + '"'
        else:
            name = key[1]
        prefix = "(" + "|".join(tags) + ")" if tags else ""
        print(" " + prefix + name + " " + version)


main(sys.argv[1:])
