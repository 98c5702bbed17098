# An overlay port, which builds the source that it is part of:
# vcpkg install ravelin --overlay-ports=packaging/vcpkg
vcpkg_check_features(OUT_FEATURE_OPTIONS feature_options FEATURES program RAVELIN_BUILD_APP)
vcpkg_cmake_configure(SOURCE_PATH "${CURRENT_PORT_DIR}/../../.."
  OPTIONS ${feature_options} -DRAVELIN_BUILD_DOCS=OFF)
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(PACKAGE_NAME Ravelin CONFIG_PATH lib/cmake/Ravelin)
vcpkg_fixup_pkgconfig()
if("program" IN_LIST FEATURES)
  vcpkg_copy_tools(TOOL_NAMES ravelin AUTO_CLEAN)
endif()
file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include" "${CURRENT_PACKAGES_DIR}/debug/share")

# vcpkg wants a file named copyright; without a licence there is nothing else to put into it.
file(WRITE "${CURRENT_PACKAGES_DIR}/share/${PORT}/copyright" "No licence has been chosen yet.\n")
