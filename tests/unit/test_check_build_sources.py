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


def blueprint_text(patterns, cflags=WARNINGS):
    """libzovk in bpfmt's layout, beside a second module, a nested srcs list and comments
    that are not the library's."""
    listed = lambda items: "".join('\n        "%s",' % item for item in items)
    return textwrap.dedent("""\
        // libzovk, "framework" build: srcs: ["other.cpp"]
        cc_library_headers {
            name: "libzovk_headers",
            srcs: ["tools/*.cpp"],
        }

        cc_library_shared {
            name: "libzovk",
            system_ext_specific: true,
            srcs: [%s // trailing "comment"
            ],
            arch: {
                arm64: {
                    srcs: ["arm64/*.cpp"],
                },
            },
            /* cflags: ["-Wextra"], */
            cflags: [%s
                "-fvisibility=hidden",
            ],
        }
        """) % (listed(patterns), listed(cflags))


class TreeTest(unittest.TestCase):
    def setUp(self):
        self._dir = tempfile.TemporaryDirectory()
        self.root = self._dir.name
        self.addCleanup(self._dir.cleanup)

    def write(self, path, text=""):
        full = os.path.join(self.root, path)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "w") as f:
            f.write(text)

    def builds(self, host, patterns, cflags=WARNINGS):
        self.write("CMakeLists.txt", cmake_text(host))
        self.write("Android.bp", blueprint_text(patterns, cflags))


class SourcesTest(TreeTest):
    SOURCES = ["layer/a.cpp", "layer/generated/g.cpp", "app/module/b.cpp"]
    GLOBS = ["layer/**/*.cpp", "app/**/*.cpp"]

    def setUp(self):
        super().setUp()
        for source in self.SOURCES + ["layer/a.h", "tools/t.cpp", "arm64/x.cpp", "platform/host/p.cpp"]:
            self.write(source)

    def test_globs_matching_cmakes_list_pass(self):
        self.builds(list(reversed(self.SOURCES)), self.GLOBS)
        self.assertEqual(check.check(self.root), [])
        with contextlib.redirect_stdout(io.StringIO()):
            self.assertEqual(check.main(["--root", self.root]), 0)

    def test_file_on_one_side_only_fails(self):
        self.write("app/module/new.cpp")
        self.builds(self.SOURCES + ["settings/gone.cpp"], self.GLOBS + ["settings/*.cpp"])
        self.assertEqual(check.check(self.root), [
            "Android.bp: srcs pattern settings/*.cpp matches no file",
            "app/module/new.cpp: matched by Android.bp's app/**/*.cpp but not in CMakeLists.txt "
            "ZOVK_LAYER_SOURCES",
            "settings/gone.cpp: in CMakeLists.txt ZOVK_LAYER_SOURCES but matched by no srcs pattern "
            "of Android.bp",
        ])
        with contextlib.redirect_stderr(io.StringIO()) as err:
            self.assertEqual(check.main(["--root", self.root]), 1)
        self.assertIn("app/module/new.cpp", err.getvalue())

    def test_platform_stand_in_and_warning_drift_fail(self):
        both = self.SOURCES + ["platform/host/p.cpp"]
        self.builds(both, self.GLOBS + ["platform/host/p.cpp"], cflags=["-Wall"])
        problems = check.check(self.root)
        self.assertEqual(len(problems), 2, problems)
        self.assertIn("platform/host/p.cpp: a platform stand-in", problems[0])
        self.assertIn("warning flags -Wall differ", problems[1])

    def test_unreadable_builds_are_reported(self):
        self.write("CMakeLists.txt", cmake_text(self.SOURCES))
        self.assertEqual(check.check(self.root), ["Android.bp: missing"])
        self.write("Android.bp", 'cc_library_shared {\n    name: "libother",\n    srcs: ["a.cpp"],\n}\n')
        self.assertIn("no module named libzovk", check.check(self.root)[0])
        self.write("Android.bp",
                   'cc_library_shared {\n    name: "libzovk",\n    srcs: common + ["a.cpp"],\n}\n')
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
