#!/usr/bin/env python3
"""Fails when an #include crosses the folder lines of the README's layout table.

    scripts/include-rules.py [SOURCE_DIR]

Every C/C++ file under SOURCE_DIR (default: the folder above this script) is judged by the rule
of the folder it lies in, so a new file needs no listing; a new top-level folder with C/C++ files
needs a rule here. Each included header is placed in a kind: a header of the tree by where it lies,
any other by its name (the C/C++ standard library and POSIX, Linux's, zlib's, the Android
interfaces by their Android names, or another library's). Library sources and public headers may
also not test the platform (__ANDROID__, __BIONIC__, __GLIBC__, __linux__): only port/ knows what
it runs on. Prints each crossing as FILE:LINE with the rule it breaks; exit status 1 if any.
"""

import os
import re
import sys

SOURCE_SUFFIXES = (".h", ".hh", ".hpp", ".c", ".cc", ".cpp", ".cxx")

# Where a header of the tree lies says what it is; the longest prefix wins.
TREE_KINDS = [
    ("include/", "public"),
    ("hardware/", "library"),
    # Headers Debian lacks, under the names a device has them by: judged by those names.
    ("port/stand-in/", "stand-in"),
    ("port/android/vxf/include/", "stand-in"),
    ("port/include/", "port-hook"),
    ("port/host/include/", "port-seam"),
    ("port/android/include/", "port-seam"),
    ("port/", "port-private"),
    ("tools/", "tools"),
    ("tests/", "tests"),
    ("bench/", "bench"),
    ("fuzz/", "fuzz"),
]

# Headers from outside the tree, by their first folder.
ANDROID_FOLDERS = {"android", "android-base", "backtrace", "cutils", "hardware", "log", "sync",
                   "system", "utils", "vxf"}
LINUX_FOLDERS = {"linux", "asm", "asm-generic"}
POSIX_FOLDERS = {"sys", "arpa", "net", "netinet"}
ZLIB_HEADERS = {"zlib.h", "zconf.h"}

KIND_WORDS = {
    "public": "a public header",
    "library": "a library-internal header",
    "port-seam": "the port's interface to the library",
    "port-hook": "the log sink hook of tests and tools",
    "port-private": "a header private to the port",
    "tools": "a vxcamctl header",
    "tests": "a test header",
    "bench": "a benchmark header",
    "fuzz": "a fuzzer header",
    "generated": "a header the build generates",
    "system": "a C/C++ standard or POSIX header",
    "linux": "a Linux kernel header",
    "zlib": "zlib's header",
    "android": "an Android interface header",
    "other": "another library's header",
}

# A library-internal header that vxcamctl may include says so in its opening comment: these are
# the catalogues whose rows the tool shows as the library uses them.
SHARED_WITH_TOOLS = "Internal to the library and its own tools"

ALL_BUT_TEST_FOLDERS = {"public", "library", "port-seam", "port-hook", "port-private", "tools",
                "generated", "system", "linux", "zlib", "android", "other"}

# The including file's folder: what it may include, and the rule in words. Longest prefix wins.
RULES = [
    ("include/", {"public", "system"},
     "public headers include only standard/POSIX headers and other public headers"),
    ("hardware/", {"public", "library", "port-seam", "system", "linux", "zlib", "android"},
     "library sources include only their own and the public headers, standard/POSIX/Linux "
     "headers, zlib, the Android interfaces by their Android names and the port's interface "
     "(port/host/include/, port/android/include/)"),
    ("port/", {"port-seam", "port-hook", "port-private", "system", "linux", "android"},
     "the port includes only its own headers, standard/POSIX/Linux headers and the Android "
     "interfaces"),
    ("tools/", {"public", "tools", "port-hook", "generated", "system", "linux", "zlib", "android"},
     "vxcamctl includes the public headers, its own, the port's log sink hook, "
     "standard/POSIX/Linux headers, zlib and the Android interfaces; of the library's internals "
     "only a header that says \"" + SHARED_WITH_TOOLS + "\""),
    ("tests/", ALL_BUT_TEST_FOLDERS | {"tests"},
     "tests include anything of the library, the port and the tools, and their own headers"),
    ("bench/", ALL_BUT_TEST_FOLDERS | {"bench"},
     "benchmarks include anything of the library, the port and the tools, and their own headers"),
    ("fuzz/", ALL_BUT_TEST_FOLDERS | {"fuzz"},
     "fuzzers include anything of the library, the port and the tools, and their own headers"),
]

# Folders whose sources may not ask which platform they are built for.
PLATFORM_BLIND = ("include/", "hardware/")
PLATFORM_MACRO = re.compile(
    r"\b(__ANDROID\w*__|__BIONIC\w*__|__GLIBC\w*|__linux__|__linux|__gnu_linux__|linux)\b")
CONDITIONAL = re.compile(r"^\s*#\s*(if|ifdef|ifndef|elif|elifdef|elifndef)\b(.*)$")
INCLUDE = re.compile(r'^\s*#\s*include(?:_next)?\s*([<"])([^>"]+)[>"]')


def longest_prefix(table, path):
    best = None
    for entry in table:
        if path.startswith(entry[0]) and (best is None or len(entry[0]) > len(best[0])):
            best = entry
    return best


def walk(root):
    """The C/C++ files of the tree, relative to root; build folders and hidden ones left out."""
    files = []
    for folder, dirs, names in os.walk(root):
        rel = os.path.relpath(folder, root)
        dirs[:] = sorted(d for d in dirs
                         if not d.startswith(".")
                         and not (rel == "." and d.startswith("build"))
                         and not os.path.exists(os.path.join(folder, d, "CMakeCache.txt")))
        for name in sorted(names):
            if name.endswith(SOURCE_SUFFIXES):
                files.append(os.path.normpath(os.path.join(rel, name)))
    return files


def external_kind(name):
    first = name.split("/", 1)[0] if "/" in name else None
    if first in ANDROID_FOLDERS:
        return "android"
    if first in LINUX_FOLDERS:
        return "linux"
    if name in ZLIB_HEADERS:
        return "zlib"
    if first is None or first in POSIX_FOLDERS:
        return "system"
    return "other"


def tree_kind(path, name):
    kind = longest_prefix(TREE_KINDS, path)
    kind = kind[1] if kind else "other"
    return external_kind(name) if kind == "stand-in" else kind


def strip_comments(text):
    """The text with comments blanked and line ends kept, so that line numbers stay."""
    def blank(match):
        return re.sub(r"[^\n]", " ", match.group(0))
    return re.sub(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'',
                  lambda m: m.group(0) if m.group(0)[0] in "\"'" else blank(m), text, flags=re.S)


def logical_lines(text):
    """(line number, line) with backslash continuations joined."""
    lines = text.split("\n")
    i = 0
    while i < len(lines):
        start, line = i + 1, lines[i]
        while line.endswith("\\") and i + 1 < len(lines):
            i += 1
            line = line[:-1] + " " + lines[i]
        yield start, line
        i += 1


def main():
    root = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else
                           os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    files = walk(root)
    headers = [f for f in files if f.endswith((".h", ".hh", ".hpp"))]
    header_set = set(headers)
    shared_cache = {}
    problems = []

    def shared_with_tools(path):
        if path not in shared_cache:
            with open(os.path.join(root, path), encoding="utf-8", errors="replace") as f:
                shared_cache[path] = SHARED_WITH_TOOLS in f.read(2048)
        return shared_cache[path]

    for path in files:
        rule = longest_prefix(RULES, path)
        if rule is None:
            problems.append("%s:1: no include rule for the folder %s (add one to %s)"
                            % (path, path.split("/")[0] + "/", os.path.relpath(__file__, root)))
            continue
        prefix, allowed, words = rule
        with open(os.path.join(root, path), encoding="utf-8", errors="replace") as f:
            text = strip_comments(f.read())
        for number, line in logical_lines(text):
            conditional = CONDITIONAL.match(line)
            if conditional and path.startswith(PLATFORM_BLIND):
                macro = PLATFORM_MACRO.search(conditional.group(2))
                if macro:
                    problems.append("%s:%d: %s in #%s: only port/ may test the platform; library "
                                    "sources and public headers are the same on a device and a "
                                    "host" % (path, number, macro.group(1), conditional.group(1)))
            include = INCLUDE.match(line)
            if not include:
                continue
            quote, name = include.groups()
            candidates = []
            if quote == '"':
                beside = os.path.normpath(os.path.join(os.path.dirname(path), name))
                if beside in header_set:
                    candidates = [beside]
            if not candidates:
                bare = os.path.normpath(name).lstrip("./")
                candidates = [h for h in headers if h == bare or h.endswith("/" + bare)]
            if candidates:
                kinds = [(tree_kind(c, name), c) for c in candidates]
            elif quote == '"':
                kinds = [("generated", None)]
            else:
                kinds = [(external_kind(name), None)]
            if any(kind in allowed for kind, _ in kinds):
                continue
            if prefix == "tools/" and any(kind == "library" and shared_with_tools(where)
                                          for kind, where in kinds):
                continue
            kind, where = kinds[0]
            problems.append("%s:%d: #include %s%s%s is %s%s: %s"
                            % (path, number, quote, name, ">" if quote == "<" else '"',
                               KIND_WORDS[kind], " (%s)" % where if where else "", words))

    for problem in problems:
        print(problem)
    print("include rules: %d files checked, %d crossings" % (len(files), len(problems)))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
