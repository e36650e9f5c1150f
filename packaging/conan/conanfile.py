# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Builds the tree that it lies in:
    conan create packaging/conan
Untried: written by Conan 2's documentation, and not run yet."""

import os
import re

from conan import ConanFile
from conan.tools.cmake import CMake, CMakeToolchain, cmake_layout
from conan.tools.files import copy, load


class SorvaneSignals(ConanFile):
    name = "sorvane-signals"
    description = "Shared POSIX signal handling for independent users inside one process"
    license = "Apache-2.0"
    package_type = "library"
    settings = "os", "arch", "compiler", "build_type"
    options = {"shared": [True, False]}
    default_options = {"shared": False}

    @property
    def _tree(self):
        return os.path.join(self.recipe_folder, os.pardir, os.pardir)

    def set_version(self):
        header = load(self, os.path.join(self._tree, "libsrc/include/sorvane/svversion.h"))
        self.version = ".".join(re.findall(r"#define \w+ (\d+)", header))

    def export_sources(self):
        for pattern in ("CMakeLists.txt", "LICENSE", "cmake/*", "inspection/*",
                        "libsrc/*"):
            copy(self, pattern, self._tree, self.export_sources_folder)

    def layout(self):
        cmake_layout(self)

    def generate(self):
        toolchain = CMakeToolchain(self)
        toolchain.cache_variables["SORVANE_SIGNALS_BUILD_TESTS"] = False
        toolchain.cache_variables["SORVANE_SIGNALS_BUILD_EXAMPLES"] = False
        toolchain.generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        copy(self, "LICENSE", self.source_folder, os.path.join(self.package_folder, "licenses"))
        CMake(self).install()

    def package_info(self):
        # The library's own package files say all, links and options included.
        self.cpp_info.set_property("cmake_find_mode", "none")
        self.cpp_info.builddirs = [os.path.join("lib", "cmake", "SorvaneSignals")]
        self.cpp_info.includedirs = [os.path.join("include", "sorvane-signals", "include")]
        self.cpp_info.libs = ["sorvane-signals"]
        self.cpp_info.system_libs = ["pthread"]
