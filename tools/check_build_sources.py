#!/usr/bin/env python3
"""Keeps the two builds of libzovk one source.

  tools/check_build_sources.py [--root DIR]

Android.bp names the library's sources by globs; CMakeLists.txt lists them as
ZOVK_LAYER_SOURCES. This checks what the globs cannot guarantee, and fails (exit 1, one
line per problem) when
  - a file that the srcs patterns of libzovk in Android.bp match is not in
    ZOVK_LAYER_SOURCES, or the reverse; a pattern matches no file; or either build
    takes a file of platform/;
  - Android.bp's warning flags are not the host build's (ZOVK_WARNINGS);
  - a preprocessor condition outside platform/ tests a platform macro (operating
    system, C library or processor): such differences live behind platform/.
Whether Android.bp parses is bpfmt's to say: .ci/run runs `bpfmt -d` first, so this
reads Android.bp in bpfmt's layout.
"""

import argparse
import glob
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


def blueprint_module(text, name):
    """{property: value text} of the module NAME in Blueprint TEXT laid out as bpfmt lays it
    out (each module ends at a "}" line; its own properties are indented by four spaces);
    None when there is no such module."""
    text = re.sub(r'("(?:[^"\\\n]|\\.)*")|//[^\n]*|/\*.*?\*/', lambda m: m.group(1) or "", text,
                  flags=re.S)  # comments out, strings kept whole
    for body in re.split(r"^}$", text, flags=re.M):
        props = dict(re.findall(r"^    (\w+): (\[[^\]]*\]|.*?),?$", body, flags=re.M))
        if props.get("name") == '"%s"' % name:
            return props
    return None


def blueprint_strings(value):
    """The strings of a plain list value; None when the value is anything else."""
    if value is None or not re.fullmatch(r'\[(\s*"[^"]*",?)*\s*\]', value):
        return None
    return re.findall(r'"([^"]*)"', value)


def expand(root, patterns):
    """{file: pattern} for the files under ROOT that Blueprint path PATTERNS name ('*' within
    a folder, '**' for any depth of folders), and the patterns that name nothing."""
    files, empty = {}, []
    for pattern in patterns:
        matches = [m for m in glob.glob(pattern, root_dir=root, recursive=True)
                   if os.path.isfile(os.path.join(root, m))]
        if not matches:
            empty.append(pattern)
        files.update((os.path.normpath(m).replace(os.sep, "/"), pattern) for m in matches)
    return files, empty


def check_sources(root):
    with open(os.path.join(root, "CMakeLists.txt")) as f:
        cmake = f.read()
    try:
        with open(os.path.join(root, "Android.bp")) as f:
            module = blueprint_module(f.read(), BP_MODULE)
    except FileNotFoundError:
        return ["Android.bp: missing"]

    host_sources = cmake_list(cmake, CMAKE_LIST)
    host_warnings = cmake_list(cmake, CMAKE_WARNINGS)
    if host_sources is None or host_warnings is None:
        return ["CMakeLists.txt: no set(%s ...) or set(%s ...)" % (CMAKE_LIST, CMAKE_WARNINGS)]
    if module is None:
        return ["Android.bp: no module named %s (in bpfmt's layout)" % BP_MODULE]
    patterns = blueprint_strings(module.get("srcs"))
    if patterns is None:
        return ["Android.bp: srcs of %s must be one plain list of paths and globs" % BP_MODULE]

    android_sources, empty = expand(root, patterns)
    problems = ["Android.bp: srcs pattern %s matches no file" % pattern for pattern in empty]
    for source in sorted(set(android_sources) - set(host_sources)):
        problems.append("%s: matched by Android.bp's %s but not in CMakeLists.txt %s"
                        % (source, android_sources[source], CMAKE_LIST))
    for source in sorted(set(host_sources) - set(android_sources)):
        problems.append("%s: in CMakeLists.txt %s but matched by no srcs pattern of Android.bp"
                        % (source, CMAKE_LIST))
    for source in sorted(set(host_sources) | set(android_sources)):
        if source.startswith("platform/"):
            problems.append("%s: a platform stand-in taken as a library source" % source)

    android_warnings = [f for f in blueprint_strings(module.get("cflags")) or [] if f.startswith("-W")]
    if sorted(android_warnings) != sorted(host_warnings):
        problems.append("Android.bp: warning flags %s differ from CMakeLists.txt %s %s"
                        % (" ".join(android_warnings), CMAKE_WARNINGS, " ".join(host_warnings)))
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
    print("Android.bp's source globs match CMakeLists.txt %s; no platform conditions outside platform/"
          % CMAKE_LIST)
    return 0


if __name__ == "__main__":
    sys.exit(main())
