"""conan create packaging/conan"""

from os.path import join

from conan import ConanFile
from conan.errors import ConanInvalidConfiguration
from conan.tools.build import check_min_cppstd
from conan.tools.cmake import CMake, CMakeDeps, CMakeToolchain, cmake_layout
from conan.tools.files import copy, rmdir


class Ravelin(ConanFile):
    name = "ravelin"
    version = "0.1.0"
    description = "Downloads a file over HTTP or HTTPS, in parts, and continues where it left off"
    # license: to be chosen by the owner
    package_type = "library"
    settings = "os", "compiler", "build_type", "arch"
    options = {"shared": [True, False], "fPIC": [True, False]}
    default_options = {"shared": False, "fPIC": True}
    implements = ["auto_shared_fpic"]

    def export_sources(self):
        for path in ("CMakeLists.txt", "cmake/*", "include/*", "platform/*", "bramblekit/*", "src/*",
                     "integrations/*", "man/*", "docs/reference.md"):
            copy(self, path, join(self.recipe_folder, "..", ".."), self.export_sources_folder)

    def layout(self):
        cmake_layout(self)

    def requirements(self):
        self.requires("libcurl/[>=7.87 <9]")
        self.requires("nlohmann_json/[>=3.11 <4]", visible=False)

    def validate(self):
        check_min_cppstd(self, 20)
        if self.settings.os != "Linux":
            raise ConanInvalidConfiguration("only Linux is supported")

    def generate(self):
        toolchain = CMakeToolchain(self)
        toolchain.cache_variables["RAVELIN_BUILD_APP"] = False
        toolchain.cache_variables["RAVELIN_BUILD_DOCS"] = False
        toolchain.generate()
        CMakeDeps(self).generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        CMake(self).install()
        rmdir(self, join(self.package_folder, "lib", "cmake"))  # Conan makes its own
        rmdir(self, join(self.package_folder, "lib", "pkgconfig"))

    def package_info(self):
        self.cpp_info.set_property("cmake_file_name", "Ravelin")
        self.cpp_info.set_property("cmake_target_name", "ravelin::ravelin")
        self.cpp_info.set_property("pkg_config_name", "ravelin")
        self.cpp_info.libs = ["ravelin"]
        self.cpp_info.requires = ["libcurl::libcurl"]
        self.cpp_info.system_libs = ["pthread"]
