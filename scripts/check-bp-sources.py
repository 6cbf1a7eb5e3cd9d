#!/usr/bin/python3
"""Checks that Android.bp and the CMake build compile the same files, module by module, and that
no test module of Android.bp reaches the host tools.

    scripts/check-bp-sources.py CMAKE_BUILD_DIR [ANDROID_BP]

CMAKE_BUILD_DIR is a build tree configured with -DPWR_BUILD_TOOLS=OFF: its compile_commands.json
says which files CMake compiles for each target. Android.bp is read with mini-soong's Blueprint
parser (Debian's mini-soong package) and its globs are expanded as Soong expands them. Every
difference is printed with the file it concerns; the exit status is 1 when there is any.
"""

import glob
import json
import os
import re
import sys

import pyparsing
from mini_soong.model import Module
from mini_soong.parser import soong

# Each module of Android.bp and the CMake targets whose sources its host variant compiles. A
# module added to either build without a line here fails the check.
MODULE_TARGETS = {
    "libpsmpoweropt": ["psmpoweropt"],
    "libpwr_cutils_host": ["cutils_host"],
    "libpoweropt_host": ["poweropt_host"],
    "libvyr-perfd-client-fake": ["fakeperf"],
    "psmpoweropt_unit_tests": [
        "pwr_unit_tests",
        "pwr_test_support",
        "pwr_plugin_environment",
        "pwr_thread_timers",
    ],
    "psmpoweropt_libc_timer_tests": ["pwr_libc_timer_tests"],
}

HOST_ONLY_TYPES = {
    "cc_binary_host",
    "cc_library_host_shared",
    "cc_library_host_static",
    "cc_test_host",
    "cc_benchmark_host",
}
TEST_TYPES = {"cc_test", "cc_test_host"}

# The `target` keys whose properties reach the glibc host variant and the Android variant.
HOST_TARGETS = {"host", "linux", "linux_glibc", "glibc", "not_windows"}
DEVICE_TARGETS = {"android", "linux", "bionic", "not_windows"}
OTHER_TARGETS = {"darwin", "windows", "linux_bionic", "linux_musl", "musl"}

# What a test module may not include, directly or through the tree's headers: the host tools,
# the simulator and the libraries only they use.
TOOL_INCLUDES = ("host/tools/", "host/sim/", "tinyxml2", "nlohmann/")

INCLUDE_RE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)
OBJECT_RE = re.compile(r"\s-o\s+\S*CMakeFiles/([^/\s]+)\.dir/")


class Checker:
    def __init__(self, bp_path):
        self.bp_path = bp_path
        self.root = os.path.dirname(os.path.abspath(bp_path))
        self.errors = []

    def error(self, message):
        # Both variants of a module expand the same patterns: say each thing once.
        if message not in self.errors:
            self.errors.append(message)
            print(f"error: {message}", file=sys.stderr)

    def parse_bp(self):
        with open(self.bp_path) as f:
            text = f.read()
        try:
            parsed = soong.parseString(text, parseAll=True)
        except pyparsing.ParseBaseException as e:
            self.error(f"{self.bp_path}:{e.lineno}:{e.col}: cannot parse: {e.msg}")
            return None
        return [(m.name, m.arguments) for m in parsed if isinstance(m, Module)]

    def expand(self, module, prop, patterns):
        files = set()
        for pattern in patterns:
            if any(c in pattern for c in "*?["):
                matched = glob.glob(pattern, root_dir=self.root, recursive=True)
                if not matched:
                    self.error(f"{self.bp_path}: {module}: {prop} pattern {pattern} matches no file")
                files.update(matched)
            elif os.path.exists(os.path.join(self.root, pattern)):
                files.add(pattern)
            else:
                self.error(f"{self.bp_path}: {module}: {prop} names {pattern}, which does not exist")
        return files

    def sources(self, name, props, defaults, variant_keys):
        """The files a variant compiles: srcs, then exclude_srcs, each with the defaults' and the
        variant's target properties appended, as Soong merges them."""
        layers = []
        for name_of_defaults in props.get("defaults", []):
            if name_of_defaults in defaults:
                layers.append(defaults[name_of_defaults])
            else:
                self.error(f"{self.bp_path}: {name}: no cc_defaults named {name_of_defaults}")
        layers.append(props)
        srcs, excludes = [], []
        for layer in layers:
            targets = layer.get("target", {})
            for key in targets:
                if key not in HOST_TARGETS | DEVICE_TARGETS | OTHER_TARGETS:
                    self.error(f"{self.bp_path}: {name}: unknown target '{key}'")
            for scope in [layer] + [targets[k] for k in sorted(variant_keys) if k in targets]:
                srcs += scope.get("srcs", [])
                excludes += scope.get("exclude_srcs", [])
        return self.expand(name, "srcs", srcs) - self.expand(name, "exclude_srcs", excludes)

    def cmake_sources(self, build_dir):
        path = os.path.join(build_dir, "compile_commands.json")
        try:
            with open(path) as f:
                commands = json.load(f)
        except (OSError, ValueError) as e:
            self.error(f"{path}: {e} (configure CMake there with -DPWR_BUILD_TOOLS=OFF first)")
            return None
        by_target = {}
        for entry in commands:
            match = OBJECT_RE.search(entry["command"])
            if match is None:
                continue
            path = os.path.relpath(os.path.join(entry["directory"], entry["file"]), self.root)
            by_target.setdefault(match.group(1), set()).add(path)
        return by_target

    def tool_include(self, path, seen):
        """The include chain from `path` to a host-tool header, or None."""
        if path in seen:
            return None
        seen.add(path)
        try:
            with open(os.path.join(self.root, path), errors="replace") as f:
                text = f.read()
        except OSError:
            return None
        for kind, name in INCLUDE_RE.findall(text):
            if any(marker in name for marker in TOOL_INCLUDES):
                return [path, name]
            if kind != '"':
                continue
            for base in (self.root, os.path.dirname(os.path.join(self.root, path))):
                candidate = os.path.relpath(os.path.join(base, name), self.root)
                if os.path.isfile(os.path.join(self.root, candidate)):
                    chain = self.tool_include(candidate, seen)
                    if chain is not None:
                        return [path] + chain
                    break
        return None

    def run(self, build_dir):
        modules = self.parse_bp()
        cmake = self.cmake_sources(build_dir)
        if modules is None or cmake is None:
            return False
        defaults = {p["name"]: p for t, p in modules if t == "cc_defaults"}

        for module_type, props in modules:
            if module_type == "cc_defaults":
                continue
            name = props["name"]
            host = module_type in HOST_ONLY_TYPES or props.get("host_supported", False)
            device = module_type not in HOST_ONLY_TYPES
            host_srcs = self.sources(name, props, defaults, HOST_TARGETS) if host else set()
            device_srcs = self.sources(name, props, defaults, DEVICE_TARGETS) if device else set()

            targets = MODULE_TARGETS.get(name)
            if targets is None:
                self.error(f"{self.bp_path}: module {name} has no CMake counterpart in "
                           f"{os.path.basename(__file__)}")
            elif not host:
                self.error(f"{self.bp_path}: {name} has no host variant to compare with CMake")
            else:
                built = set()
                for target in targets:
                    if target not in cmake:
                        self.error(f"CMake has no target {target} (the counterpart of {name})")
                    built |= cmake.get(target, set())
                cmake_names = "+".join(targets)
                for path in sorted(built - host_srcs):
                    self.error(f"{path}: CMake target {cmake_names} compiles it, "
                               f"Android.bp module {name} does not")
                for path in sorted(host_srcs - built):
                    self.error(f"{path}: Android.bp module {name} compiles it, "
                               f"CMake target {cmake_names} does not")
                only_device = sorted(device_srcs - host_srcs)
                extra = f"; device only: {', '.join(only_device)}" if only_device else ""
                count = f"{len(host_srcs)} file{'' if len(host_srcs) == 1 else 's'}"
                print(f"{name}: {count}, the same as CMake's {cmake_names}{extra}")

            if module_type in TEST_TYPES:
                for path in sorted(host_srcs | device_srcs):
                    chain = self.tool_include(path, set())
                    if chain is not None:
                        self.error(f"{path}: test module {name} reaches the host tools through "
                                   f"{' -> '.join(chain)}; tool suites belong in tests/tools/")

        for name in sorted(set(MODULE_TARGETS) - {p["name"] for _, p in modules}):
            self.error(f"{self.bp_path}: no module {name}, which "
                       f"{os.path.basename(__file__)} pairs with CMake")
        return not self.errors


def main():
    if len(sys.argv) not in (2, 3):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    checker = Checker(sys.argv[2] if len(sys.argv) == 3 else "Android.bp")
    if not checker.run(sys.argv[1]):
        print(f"{len(checker.errors)} problem(s) found", file=sys.stderr)
        return 1
    print("Android.bp and CMake compile the same files")
    return 0


if __name__ == "__main__":
    sys.exit(main())
