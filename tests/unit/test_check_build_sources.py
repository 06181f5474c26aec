#!/usr/bin/env python3
"""Tests of tools/check_build_sources.py: per rule, small trees that keep it and trees that break it."""

import contextlib
import io
import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import check_build_sources as check  # noqa: E402

CMAKE = ("set(ZOVK_WARNINGS -Wall -Wshadow)\nset(ZOVK_LAYER_SOURCES  # the library\n  %s\n)\n"
         "set(ZOVK_HOST_PLATFORM_SOURCES platform/host/p.cpp)\n")
SOURCES = "app/module/b.cpp layer/generated/g.cpp layer/a.cpp"
GLOBS = ["layer/**/*.cpp", "app/**/*.cpp"]


def blueprint(globs=GLOBS, cflags=("-Wshadow", "-Wall")):
    """libzovk in bpfmt's layout beside another module, a nested srcs list and comments that are not its own."""
    listed = lambda items: "".join('\n        "%s",' % item for item in items)
    return ('// libzovk: srcs: ["other.cpp"]\ncc_library_headers {\n    name: "libzovk_headers",\n'
            '    srcs: ["tools/*.cpp"],\n}\n\ncc_library_shared {\n    name: "libzovk",\n'
            '    srcs: [%s // trailing "comment"\n    ],\n    arch: {\n        arm64: {\n'
            '            srcs: ["arm64/*.cpp"],\n        },\n    },\n    /* cflags: ["-Wextra"], */\n'
            '    cflags: [%s\n        "-fvisibility=hidden",\n    ],\n}\n') % (listed(globs), listed(cflags))


# Keeps every rule: files that no glob names (a header, another module's, the host platform's), platform
# macros only in platform/, a build tree and a comment.
TREE = {"CMakeLists.txt": CMAKE % SOURCES, "Android.bp": blueprint(), "layer/a.cpp": "", "layer/generated/g.cpp": "",
        "layer/a.h": "#ifndef ZOVK_A_H\n#if 0  // not for __ANDROID__ yet\n#endif\n", "app/module/b.cpp": "",
        "tools/t.cpp": "", "arm64/x.cpp": "", "platform/host/p.cpp": "#ifdef __ANDROID__\n#endif\n",
        "build-arm64/CMakeFiles/id.c": "#if defined(__linux__)\n#endif\n"}


class RulesTest(unittest.TestCase):
    def cases(self, rows):
        """Each row: a name, the files that replace TREE's (None removes one), the problems expected."""
        for name, files, want in rows:
            with self.subTest(name), tempfile.TemporaryDirectory() as root:
                for path, text in {**TREE, **files}.items():
                    if text is not None:
                        os.makedirs(os.path.dirname(os.path.join(root, path)), exist_ok=True)
                        with open(os.path.join(root, path), "w") as f:
                            f.write(text)
                self.assertEqual(check.check(root), want)
                with contextlib.redirect_stdout(io.StringIO()), contextlib.redirect_stderr(io.StringIO()) as err:
                    self.assertEqual(check.main(["--root", root]), 1 if want else 0)
                self.assertEqual(err.getvalue(), "".join(line + "\n" for line in want))

    def test_the_globs_and_cmakes_list_name_the_same_library_sources(self):
        self.cases([
            ("the same files, in other orders", {}, []),
            ("a file on one side only, a glob that matches nothing",
             {"app/module/new.cpp": "", "CMakeLists.txt": CMAKE % (SOURCES + " settings/gone.cpp"),
              "Android.bp": blueprint(GLOBS + ["settings/*.cpp"])},
             ["Android.bp: srcs pattern settings/*.cpp matches no file",
              "app/module/new.cpp: matched by Android.bp's app/**/*.cpp but not in CMakeLists.txt ZOVK_LAYER_SOURCES",
              "settings/gone.cpp: in CMakeLists.txt ZOVK_LAYER_SOURCES but matched by no srcs pattern of Android.bp"]),
            ("a platform stand-in in both", {"CMakeLists.txt": CMAKE % (SOURCES + " platform/host/p.cpp"),
                                             "Android.bp": blueprint(GLOBS + ["platform/host/p.cpp"])},
             ["platform/host/p.cpp: a platform stand-in taken as a library source"]),
            ("no Android.bp", {"Android.bp": None}, ["Android.bp: missing"]),
            ("no libzovk", {"Android.bp": blueprint().replace('"libzovk"', '"libother"')},
             ["Android.bp: no module named libzovk (in bpfmt's layout)"]),
            ("srcs not one list", {"Android.bp": blueprint().replace("srcs: [\n", "srcs: common + [\n")},
             ["Android.bp: srcs of libzovk must be one plain list of paths and globs"]),
        ])

    def test_the_warning_flags_are_the_host_builds(self):
        self.cases([
            ("the same in another order, beside other flags and a commented-out one", {}, []),
            ("one missing", {"Android.bp": blueprint(cflags=("-Wall",))},
             ["Android.bp: warning flags -Wall differ from CMakeLists.txt ZOVK_WARNINGS -Wall -Wshadow"]),
        ])

    def test_no_condition_on_a_platform_macro_outside_platform(self):
        self.cases([
            ("in platform/, a build tree, a comment", {}, []),
            ("in the library and the tests",
             {"app/module/b.cpp": "#ifdef __ANDROID__\n#endif\n#if FEATURE && \\\n    defined(__linux__)\n"
                                  "#elif defined __aarch64__ /* arm */\n#endif\n",
              "tests/y.h": "#  if __ANDROID_API__ >= 35\n#endif\n"},
             ["app/module/b.cpp:1: condition on the platform macro __ANDROID__ outside platform/",
              "app/module/b.cpp:3: condition on the platform macro __linux__ outside platform/",
              "app/module/b.cpp:5: condition on the platform macro __aarch64__ outside platform/",
              "tests/y.h:1: condition on the platform macro __ANDROID_API__ outside platform/"]),
        ])


if __name__ == "__main__":
    unittest.main()
