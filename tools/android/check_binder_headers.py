#!/usr/bin/env python3
"""Compiles the library against libbinder's real headers, syntax only.

  tools/android/check_binder_headers.py [-v]

The host build compiles the layer's binder code against the host stand-in's headers
(platform/host/include), a subset of libbinder's API. This compiles every source that
Android.bp's srcs patterns match (so any new .cpp under layer/, settings/ or app/) with
`g++ -fsyntax-only`, the host build's language standard and warnings, and Debian's
android-platform-frameworks-native-headers (libbinder's headers of API 29, in
/usr/include/android/binder) where the host build has the stand-in; libcutils' real
<cutils/properties.h> likewise replaces the stand-in's. Vulkan, jsoncpp, liblog, libbase
and libutils headers are the host build's. A type, call or signature that the stand-in
has and libbinder lacks fails here; so does a source that reaches platform/host/include.

compat/ (ahead of the real headers) holds what API 29 and glibc lack: zovk_binder_api29.h,
included before each source, maps the two calls of API 35 that API 29 lacks
(Parcel::markForBinder, Status::writeOverParcel) onto API 29 members with the same
parameters; sys/system_properties.h stands in for the bionic header that cutils includes.
Exit 1 with the compiler's messages on any error.
"""

import argparse
import concurrent.futures
import os
import re
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.realpath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.dirname(HERE))

import check_build_sources  # noqa: E402

ANDROID_INCLUDE = "/usr/include/android"
BINDER_HEADERS = os.path.join(ANDROID_INCLUDE, "binder")
COMPAT = os.path.join(HERE, "compat")
STAND_IN = os.path.join(ROOT, "platform", "host", "include")
API29_LACKS = ("markForBinder", "writeOverParcel")


def library_sources():
    with open(os.path.join(ROOT, "Android.bp")) as f:
        module = check_build_sources.blueprint_module(f.read(), check_build_sources.BP_MODULE)
    patterns = check_build_sources.blueprint_strings((module or {}).get("srcs"))
    if not patterns:
        sys.exit("Android.bp: no srcs list of %s to take the sources from"
                 % check_build_sources.BP_MODULE)
    return sorted(check_build_sources.expand(ROOT, patterns)[0])


def compiler_flags():
    with open(os.path.join(ROOT, "CMakeLists.txt")) as f:
        warnings = check_build_sources.cmake_list(f.read(), check_build_sources.CMAKE_WARNINGS)
    jsoncpp = subprocess.run(["pkg-config", "--cflags-only-I", "jsoncpp"], check=True,
                             capture_output=True, text=True).stdout.split()
    # As in the host build: the sources' own folder first, the others as system headers.
    system = [flag[2:] for flag in jsoncpp] + [COMPAT, ANDROID_INCLUDE]
    return (["-std=c++17", "-fsyntax-only", "-I" + ROOT] + warnings
            + [arg for folder in system for arg in ("-isystem", folder)]
            + ["-include", os.path.join(COMPAT, "zovk_binder_api29.h")])


def check_api29_headers():
    """The installed headers must be API 29's: the compat header's names must be free there."""
    if not os.path.isfile(os.path.join(BINDER_HEADERS, "Parcel.h")):
        sys.exit("%s: missing; install android-platform-frameworks-native-headers "
                 "(scripts/install-deps.sh)" % BINDER_HEADERS)
    for header in ("Parcel.h", "Status.h"):
        with open(os.path.join(BINDER_HEADERS, header)) as f:
            text = f.read()
        for name in API29_LACKS:
            if re.search(r"\b%s\b" % name, text):
                sys.exit("%s declares %s: these are not libbinder's headers of API 29, for which "
                         "compat/zovk_binder_api29.h is written" % (f.name, name))


def compile_one(source, flags, scratch):
    deps = os.path.join(scratch, source.replace("/", "_") + ".d")
    done = subprocess.run(["g++"] + flags + ["-MD", "-MF", deps, os.path.join(ROOT, source)],
                          capture_output=True, text=True, cwd=ROOT)
    headers = []
    if os.path.exists(deps):
        with open(deps) as f:
            headers = [os.path.realpath(h) for h in f.read().replace("\\\n", " ").split()[1:]]
    return done.returncode, done.stdout + done.stderr, headers


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("-v", "--verbose", action="store_true",
                        help="name the sources that include libbinder's headers")
    args = parser.parse_args(argv)
    check_api29_headers()
    sources, flags = library_sources(), compiler_flags()
    failed, with_binder = [], []
    with tempfile.TemporaryDirectory() as scratch, \
            concurrent.futures.ThreadPoolExecutor(os.cpu_count() or 2) as pool:
        results = pool.map(lambda s: compile_one(s, flags, scratch), sources)
        for source, (status, output, headers) in zip(sources, results):
            if output:
                print(output, end="", file=sys.stderr)
            leaked = [h for h in headers if h.startswith(STAND_IN + os.sep)]
            if status != 0 or leaked:
                failed.append(source)
            for header in leaked:
                print("%s: includes the host stand-in %s" % (source, os.path.relpath(header, ROOT)),
                      file=sys.stderr)
            if any(h.startswith(BINDER_HEADERS + os.sep) for h in headers):
                with_binder.append(source)
    if failed:
        print("%d of %d sources do not compile against libbinder's headers of API 29: %s"
              % (len(failed), len(sources), " ".join(failed)), file=sys.stderr)
        return 1
    if not with_binder:
        print("no source reached %s: the check checked nothing" % BINDER_HEADERS, file=sys.stderr)
        return 1
    print("%d sources compile against libbinder's headers of API 29, %d of them include them%s"
          % (len(sources), len(with_binder), (": " + " ".join(with_binder)) if args.verbose else ""))
    return 0


if __name__ == "__main__":
    sys.exit(main())
