#!/usr/bin/env python3
"""Keeps the two builds of libzovk one source.

  tools/check_build_sources.py [--root DIR]

Fails (exit 1, one line per problem) when
  - the library's sources differ between CMakeLists.txt (ZOVK_LAYER_SOURCES) and
    Android.bp (the srcs of libzovk), or either list names a file of platform/;
  - Android.bp's warning flags are not the host build's (ZOVK_WARNINGS);
  - a preprocessor condition outside platform/ tests a platform macro (operating
    system, C library or processor): such differences live behind platform/.
"""

import argparse
import os
import re
import sys

CMAKE_LIST = "ZOVK_LAYER_SOURCES"
CMAKE_WARNINGS = "ZOVK_WARNINGS"
BP_MODULE = "libzovk"

PLATFORM_MACROS = {
    "ANDROID", "__linux__", "__linux", "linux", "__gnu_linux__", "__unix__", "__unix", "unix",
    "__APPLE__", "__MACH__", "_WIN32", "_WIN64", "__FreeBSD__",
    "__BIONIC__", "__GLIBC__", "__GLIBC_MINOR__", "__UCLIBC__", "__MUSL__",
    "__aarch64__", "__arm__", "__x86_64__", "__amd64__", "__i386__", "_M_X64", "_M_ARM64",
}
SOURCE_SUFFIXES = (".c", ".cc", ".cpp", ".h", ".hpp", ".inc")
CONDITION = re.compile(r"^\s*#\s*(?:if|ifdef|ifndef|elif|elifdef|elifndef)\b(.*)$")
IDENTIFIER = re.compile(r"[A-Za-z_]\w*")


def is_platform_macro(name):
    return name in PLATFORM_MACROS or name.startswith("__ANDROID")


def cmake_list(text, name):
    """The words of `set(NAME ...)`, comments dropped; None when there is no such set."""
    text = re.sub(r"#.*", "", text)
    match = re.search(r"\bset\(\s*%s\b([^)]*)\)" % re.escape(name), text)
    return match.group(1).split() if match else None


def strip_blueprint_comments(text):
    """TEXT without its // and /* */ comments; strings are kept whole."""
    out, i = [], 0
    while i < len(text):
        if text[i] == '"':
            end = text.find('"', i + 1)
            end = len(text) if end < 0 else end + 1
        elif text.startswith("//", i):
            i = text.find("\n", i)
            i = len(text) if i < 0 else i
            continue
        elif text.startswith("/*", i):
            end = text.find("*/", i + 2)
            i = len(text) if end < 0 else end + 2
            continue
        else:
            end = i + 1
        out.append(text[i:end])
        i = end
    return "".join(out)


def blueprint_module(text, name):
    """The body of the module whose top-level `name:` is NAME, or None."""
    for start in re.finditer(r"\b\w+\s*\{", text):
        depth, body_start = 0, start.end()
        for i in range(start.end() - 1, len(text)):
            depth += {"{": 1, "}": -1}.get(text[i], 0)
            if depth == 0:
                body = text[body_start:i]
                if top_level_property(body, "name") == '"%s"' % name:
                    return body
                break
    return None


def top_level_property(body, prop):
    """The value text of PROP at the module's own level (not inside nested blocks)."""
    pattern = re.compile(r"\b%s\s*:\s*" % re.escape(prop))
    depth = 0
    for i, c in enumerate(body):
        if c in "{[":
            depth += 1
        elif c in "}]":
            depth -= 1
        elif depth == 0:
            match = pattern.match(body, i)
            if match:
                return read_value(body, match.end())
    return None


def read_value(body, i):
    if body[i] != "[":
        end = body.find(",", i)
        return body[i:end if end >= 0 else len(body)].strip()
    depth = 0
    for j in range(i, len(body)):
        depth += {"[": 1, "]": -1}.get(body[j], 0)
        if depth == 0:
            return body[i:j + 1]
    return body[i:]


def blueprint_strings(value):
    """The strings of a plain list value; None when the value is anything else."""
    if value is None or not value.startswith("[") or "+" in value:
        return None
    return re.findall(r'"([^"]*)"', value)


def check_sources(root):
    problems = []
    with open(os.path.join(root, "CMakeLists.txt")) as f:
        cmake = f.read()
    try:
        with open(os.path.join(root, "Android.bp")) as f:
            blueprint = strip_blueprint_comments(f.read())
    except FileNotFoundError:
        return ["Android.bp: missing"]

    host_sources = cmake_list(cmake, CMAKE_LIST)
    host_warnings = cmake_list(cmake, CMAKE_WARNINGS)
    if host_sources is None or host_warnings is None:
        return ["CMakeLists.txt: no set(%s ...) or set(%s ...)" % (CMAKE_LIST, CMAKE_WARNINGS)]
    module = blueprint_module(blueprint, BP_MODULE)
    if module is None:
        return ["Android.bp: no module named %s" % BP_MODULE]
    vendor_sources = blueprint_strings(top_level_property(module, "srcs"))
    cflags = blueprint_strings(top_level_property(module, "cflags")) or []
    if vendor_sources is None:
        return ["Android.bp: srcs of %s must be one plain list of files" % BP_MODULE]

    for source in sorted(set(host_sources) - set(vendor_sources)):
        problems.append("%s: in CMakeLists.txt %s but not in Android.bp" % (source, CMAKE_LIST))
    for source in sorted(set(vendor_sources) - set(host_sources)):
        problems.append("%s: in Android.bp but not in CMakeLists.txt %s" % (source, CMAKE_LIST))
    for source in sorted(set(host_sources) | set(vendor_sources)):
        if source.startswith("platform/"):
            problems.append("%s: a platform stand-in listed as a library source" % source)

    vendor_warnings = [flag for flag in cflags if flag.startswith("-W")]
    if sorted(vendor_warnings) != sorted(host_warnings):
        problems.append("Android.bp: warning flags %s differ from CMakeLists.txt %s %s"
                        % (" ".join(vendor_warnings), CMAKE_WARNINGS, " ".join(host_warnings)))
    return problems


def platform_conditions(path):
    """(line number, macro) for each platform macro that a condition in PATH tests."""
    hits = []
    with open(path, errors="replace") as f:
        lines = f.read().splitlines()
    i = 0
    while i < len(lines):
        number, text = i + 1, lines[i]
        while text.endswith("\\") and i + 1 < len(lines):
            i += 1
            text = text[:-1] + " " + lines[i]
        i += 1
        match = CONDITION.match(text)
        if match is None:
            continue
        condition = re.sub(r"/\*.*?\*/", " ", match.group(1)).split("//", 1)[0]
        hits += [(number, word) for word in IDENTIFIER.findall(condition) if is_platform_macro(word)]
    return hits


def check_conditions(root):
    problems = []
    for directory, subdirs, files in os.walk(root):
        # Build trees (compiler probes test every platform) and platform/ itself are left out.
        subdirs[:] = sorted(d for d in subdirs
                            if not d.startswith((".", "build", "__pycache__"))
                            and not (directory == root and d == "platform")
                            and not os.path.exists(os.path.join(directory, d, "CMakeCache.txt")))
        for name in sorted(files):
            if name.endswith(SOURCE_SUFFIXES):
                path = os.path.join(directory, name)
                for number, macro in platform_conditions(path):
                    problems.append("%s:%d: condition on the platform macro %s outside platform/"
                                    % (os.path.relpath(path, root), number, macro))
    return problems


def check(root):
    return check_sources(root) + check_conditions(root)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--root", default=os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    args = parser.parse_args(argv)
    problems = check(args.root)
    for problem in problems:
        print(problem, file=sys.stderr)
    if problems:
        return 1
    print("library sources agree between CMakeLists.txt and Android.bp; no platform conditions outside platform/")
    return 0


if __name__ == "__main__":
    sys.exit(main())
