#!/usr/bin/env python3
"""Runs the test suite against hand-made faults of the library and counts the ones it catches.

Each fault of scripts/mutations.txt is applied to the source tree in turn, the library rebuilt and
the suite run; a fault is caught when a test fails or times out, and survives when the suite passes.
The source is put back after each fault, also when the run is interrupted. The run needs a clean
baseline: the suite must pass on the unchanged tree first.

    scripts/mutate.py                          # every fault; results in build-mutate/mutations.tsv
    scripts/mutate.py --only catcher-fpe,flush-text-mode
    scripts/mutate.py --compare before.tsv     # per file: caught before, caught now

Not part of the test command: a full run takes about an hour on two cores.
"""

import argparse
import collections
import os
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LIBRARY_DIRS = ["hardware/camera/common/utils", "include"]
# Checks of form, interface and packaging: a fault of behaviour cannot fail them, and some would
# fail for a mutated line's layout alone.
NOT_BEHAVIOUR = r"^(clang_format|abi_types|exported_symbols|installed_package|include_rules)$"


class Fault:
    def __init__(self, ident, file, what):
        self.ident, self.file, self.what = ident, file, what
        self.old, self.new = [], []

    def texts(self):
        unescape = lambda lines: "\n".join(lines)
        return unescape(self.old), unescape(self.new)


def read_faults(path):
    faults = []
    with open(path, encoding="utf-8") as listing:
        for number, raw in enumerate(listing, 1):
            line = raw.rstrip("\n")
            if line.startswith("#") or not line.strip():
                continue
            if line.startswith("== "):
                parts = [part.strip() for part in line[3:].split("|", 2)]
                if len(parts) != 3:
                    sys.exit(f"{path}:{number}: expected '== id | file | what'")
                faults.append(Fault(*parts))
            elif line.startswith("- ") or line == "-":
                faults[-1].old.append(line[2:])
            elif line.startswith("+ ") or line == "+":
                faults[-1].new.append(line[2:])
            else:
                sys.exit(f"{path}:{number}: a line must start with '#', '== ', '- ' or '+ '")
    seen = set()
    for fault in faults:
        if fault.ident in seen:
            sys.exit(f"fault {fault.ident} is listed twice")
        seen.add(fault.ident)
        if not fault.old:
            sys.exit(f"fault {fault.ident} replaces nothing")
    return faults


def library_sources():
    for folder in LIBRARY_DIRS:
        for name in sorted(os.listdir(os.path.join(ROOT, folder))):
            if name.endswith((".cpp", ".h")):
                yield os.path.join(folder, name)


def locate(fault):
    """The one source that holds the fault's text: its named file, else wherever the code moved."""
    old, _ = fault.texts()
    named = [path for path in library_sources() if os.path.basename(path) == fault.file]
    for candidates in (named, list(library_sources())):
        hits = []
        for path in candidates:
            with open(os.path.join(ROOT, path), encoding="utf-8") as source:
                count = source.read().count(old)
            hits += [path] * count
        if len(hits) == 1:
            return hits[0], None
        if len(hits) > 1:
            return None, f"text found {len(hits)} times"
    return None, "text not found"


def run(command, log, timeout=None):
    with open(log, "a", encoding="utf-8") as out:
        out.write(f"\n$ {' '.join(command)}\n")
        out.flush()
        try:
            return subprocess.run(command, cwd=ROOT, stdout=out, stderr=subprocess.STDOUT,
                                  timeout=timeout).returncode
        except subprocess.TimeoutExpired:
            return 124


def failed_tests(build):
    path = os.path.join(build, "Testing", "Temporary", "LastTestsFailed.log")
    try:
        with open(path, encoding="utf-8") as listing:
            return [line.strip().split(":", 1)[-1] for line in listing if line.strip()]
    except OSError:
        return []


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--faults", default=os.path.join(ROOT, "scripts", "mutations.txt"))
    parser.add_argument("--build", default=os.path.join(ROOT, "build-mutate"))
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--timeout", type=int, default=90, help="seconds per test")
    parser.add_argument("--only", help="comma-separated fault ids")
    parser.add_argument("--out", help="results table (default: BUILD/mutations.tsv)")
    parser.add_argument("--compare", help="an earlier results table to set beside this run's")
    parser.add_argument("--check", action="store_true",
                        help="only check that every fault applies; build and run nothing")
    args = parser.parse_args()

    faults = read_faults(args.faults)
    if args.only:
        wanted = set(args.only.split(","))
        unknown = wanted - {fault.ident for fault in faults}
        if unknown:
            sys.exit(f"unknown fault ids: {', '.join(sorted(unknown))}")
        faults = [fault for fault in faults if fault.ident in wanted]

    problems = [(fault, locate(fault)[1]) for fault in faults]
    problems = [(fault, why) for fault, why in problems if why]
    for fault, why in problems:
        print(f"{fault.ident}: {why} in {fault.file}", file=sys.stderr)
    if args.check or problems:
        print(f"{len(faults) - len(problems)} of {len(faults)} faults apply")
        return 1 if problems else 0

    build = os.path.abspath(args.build)
    log = os.path.join(build, "mutate.log")
    os.makedirs(build, exist_ok=True)
    open(log, "w").close()
    # Unoptimised, since most of a fault's time is the rebuild; test programs are not relinked
    # for a changed library, which they load at run time.
    if run(["cmake", "-S", ".", "-B", build, "-DCMAKE_BUILD_TYPE=Debug",
            "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", "-DVXCAM_BUILD_BENCHMARKS=OFF",
            "-DVXCAM_BUILD_FUZZERS=OFF"], log) != 0:
        sys.exit(f"configure failed: see {log}")
    build_command = ["cmake", "--build", build, "-j", str(args.jobs)]
    test_command = ["ctest", "--test-dir", build, "-j", str(args.jobs), "--timeout",
                    str(args.timeout), "--stop-on-failure", "-E", NOT_BEHAVIOUR]
    if run(build_command, log) != 0:
        sys.exit(f"the unchanged tree does not build: see {log}")
    if run(test_command, log) != 0:
        sys.exit(f"the suite fails on the unchanged tree ({', '.join(failed_tests(build))}): "
                 f"no fault could be judged; see {log}")

    results = []
    current = {"path": None, "text": None}

    def restore(*_):
        if current["path"] is not None:
            with open(current["path"], "w", encoding="utf-8") as source:
                source.write(current["text"])
            current["path"] = None
        if _:
            sys.exit(130)

    signal.signal(signal.SIGINT, restore)
    signal.signal(signal.SIGTERM, restore)
    try:
        for index, fault in enumerate(faults, 1):
            where, _ = locate(fault)
            path = os.path.join(ROOT, where)
            with open(path, encoding="utf-8") as source:
                original = source.read()
            old, new = fault.texts()
            current.update(path=path, text=original)
            with open(path, "w", encoding="utf-8") as source:
                source.write(original.replace(old, new, 1))
            start = time.monotonic()
            if run(build_command, log) != 0:
                verdict, by = "no-build", ""
            elif run(test_command, log) != 0:
                verdict, by = "caught", " ".join(failed_tests(build)[:3])
            else:
                verdict, by = "survived", ""
            restore()
            seconds = time.monotonic() - start
            results.append((fault.ident, fault.file, where, verdict, by))
            print(f"[{index}/{len(faults)}] {verdict:8} {fault.ident} ({seconds:.0f} s) {by}",
                  flush=True)
    finally:
        restore()
        run(build_command, log)

    out = args.out or os.path.join(build, "mutations.tsv")
    with open(out, "w", encoding="utf-8") as table:
        table.write("id\tfile\tapplied in\tverdict\tcaught by\n")
        for row in results:
            table.write("\t".join(row) + "\n")

    earlier = {}
    if args.compare:
        with open(args.compare, encoding="utf-8") as table:
            next(table)
            for line in table:
                ident, _, _, verdict, _ = line.rstrip("\n").split("\t")
                earlier[ident] = verdict
    per_file = collections.OrderedDict()
    for ident, file, _, verdict, _ in results:
        counts = per_file.setdefault(file, [0, 0, 0])
        counts[0] += 1
        counts[1] += verdict == "caught"
        counts[2] += earlier.get(ident) == "caught"
    print(f"\n{'file':32} faults  caught" + ("  caught before" if earlier else ""))
    for file, (total, caught, before) in per_file.items():
        print(f"{file:32} {total:6}  {caught:6}" + (f"  {before:13}" if earlier else ""))
    total = sum(counts[0] for counts in per_file.values())
    caught = sum(counts[1] for counts in per_file.values())
    before = sum(counts[2] for counts in per_file.values())
    print(f"{'all':32} {total:6}  {caught:6}" + (f"  {before:13}" if earlier else ""))
    unbuilt = [row[0] for row in results if row[3] == "no-build"]
    if unbuilt:
        print(f"did not build: {', '.join(unbuilt)}")
    if earlier:
        lost = [row[0] for row in results if row[3] != "caught" and earlier.get(row[0]) == "caught"]
        if lost:
            print(f"caught before, not now: {', '.join(lost)}")
        return 1 if caught < before else 0
    return 0


if __name__ == "__main__":
    sys.exit(main())
