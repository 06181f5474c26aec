#!/usr/bin/env python3
"""Tests of tools/check_build_sources.py on small hand-made trees."""

import contextlib
import io
import os
import sys
import tempfile
import textwrap
import unittest

REPO_ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(REPO_ROOT, "tools"))

import check_build_sources as check  # noqa: E402

WARNINGS = ["-Wall", "-Wshadow"]


def cmake_text(sources):
    return textwrap.dedent("""\
        set(ZOVK_WARNINGS %s)
        # The layer's own sources.
        set(ZOVK_LAYER_SOURCES  # the library (both builds)
          %s
        )
        set(ZOVK_HOST_PLATFORM_SOURCES
          platform/host/properties.cpp
        )
        """) % (" ".join(WARNINGS), "\n  ".join(sources))


def blueprint_text(sources, cflags=WARNINGS):
    quoted = lambda items: ", ".join('"%s"' % item for item in items)
    # A second module and a nested srcs list, which are not the library's.
    return textwrap.dedent("""\
        // libzovk, "vendor" build
        cc_library_headers { name: "libzovk_headers", srcs: ["other.cpp"] }
        cc_library_shared {
            name: "libzovk",
            srcs: [%s], // trailing "comment"
            arch: { arm64: { srcs: ["arm64_only.cpp"] } },
            cflags: [%s, "-fvisibility=hidden"],
            /* shared_libs: ["liblog"], */
        }
        """) % (quoted(sources), quoted(cflags))


class TreeTest(unittest.TestCase):
    def setUp(self):
        self._dir = tempfile.TemporaryDirectory()
        self.root = self._dir.name
        self.addCleanup(self._dir.cleanup)

    def write(self, path, text):
        full = os.path.join(self.root, path)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "w") as f:
            f.write(text)

    def builds(self, host, vendor, cflags=WARNINGS):
        self.write("CMakeLists.txt", cmake_text(host))
        self.write("Android.bp", blueprint_text(vendor, cflags))


class SourcesTest(TreeTest):
    SOURCES = ["layer/a.cpp", "app/module/b.cpp"]

    def test_same_sources_in_any_order_pass(self):
        self.builds(self.SOURCES, list(reversed(self.SOURCES)))
        self.assertEqual(check.check(self.root), [])
        with contextlib.redirect_stdout(io.StringIO()):
            self.assertEqual(check.main(["--root", self.root]), 0)

    def test_source_added_to_one_build_only_fails(self):
        self.builds(self.SOURCES + ["app/module/new.cpp"], self.SOURCES)
        self.assertEqual(check.check(self.root),
                         ["app/module/new.cpp: in CMakeLists.txt ZOVK_LAYER_SOURCES but not in Android.bp"])
        self.builds(self.SOURCES, self.SOURCES + ["app/module/new.cpp"])
        self.assertEqual(check.check(self.root),
                         ["app/module/new.cpp: in Android.bp but not in CMakeLists.txt ZOVK_LAYER_SOURCES"])
        with contextlib.redirect_stderr(io.StringIO()) as err:
            self.assertEqual(check.main(["--root", self.root]), 1)
        self.assertIn("app/module/new.cpp", err.getvalue())

    def test_platform_stand_in_and_warning_drift_fail(self):
        both = self.SOURCES + ["platform/host/properties.cpp"]
        self.builds(both, both, cflags=["-Wall"])
        problems = check.check(self.root)
        self.assertEqual(len(problems), 2, problems)
        self.assertIn("platform/host/properties.cpp: a platform stand-in", problems[0])
        self.assertIn("warning flags -Wall differ", problems[1])

    def test_unreadable_builds_are_reported(self):
        self.write("CMakeLists.txt", cmake_text(self.SOURCES))
        self.assertEqual(check.check(self.root), ["Android.bp: missing"])
        self.write("Android.bp", 'cc_library_shared { name: "libother", srcs: ["a.cpp"] }\n')
        self.assertEqual(check.check(self.root), ["Android.bp: no module named libzovk"])
        self.write("Android.bp", 'cc_library_shared { name: "libzovk", srcs: common + ["a.cpp"] }\n')
        self.assertIn("one plain list", check.check(self.root)[0])


class ConditionsTest(TreeTest):
    def test_platform_conditions_outside_platform_fail(self):
        self.builds([], [])
        self.write("layer/x.cpp", textwrap.dedent("""\
            #ifndef ZOVK_X_H
            #if 0  // not for __ANDROID__ yet
            #endif
            #ifdef __ANDROID__
            #endif
            #if FEATURE && \\
                defined(__linux__)
            #elif defined __aarch64__ /* arm */
            #endif
            """))
        self.write("tests/y.h", "#  if __ANDROID_API__ >= 35\n#endif\n")
        self.write("platform/host/z.cpp", "#ifdef __ANDROID__\n#endif\n")
        self.write("build-arm64/CMakeFiles/id.c", "#if defined(__linux__)\n#endif\n")
        self.assertEqual(check.check(self.root), [
            "layer/x.cpp:4: condition on the platform macro __ANDROID__ outside platform/",
            "layer/x.cpp:6: condition on the platform macro __linux__ outside platform/",
            "layer/x.cpp:8: condition on the platform macro __aarch64__ outside platform/",
            "tests/y.h:1: condition on the platform macro __ANDROID_API__ outside platform/",
        ])


if __name__ == "__main__":
    unittest.main()
