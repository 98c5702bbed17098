# Installs the library for find_package(Ravelin CONFIG) and pkg-config, and the program. Components:
#   program      the program, its manual page and completions
#   library      the shared library, in a shared build
#   development  headers, manual pages, files for CMake and pkg-config; the archive or the link to
#                the shared library
include(CMakePackageConfigHelpers)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Ravelin)
set_target_properties(ravelin PROPERTIES EXPORT_NAME ravelin)
install(TARGETS ravelin EXPORT RavelinTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ravelin
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development FILES_MATCHING REGEX "\\.h(pp)?$")

install(EXPORT RavelinTargets NAMESPACE ravelin::
  DESTINATION ${config_dir} COMPONENT development)
if(NOT BUILD_SHARED_LIBS)
  set(BUILD_SHARED_LIBS OFF) # would be empty in the configured file
endif()
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/RavelinConfig.cmake.in
  ${PROJECT_BINARY_DIR}/RavelinConfig.cmake INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/RavelinConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/RavelinConfig.cmake
  ${PROJECT_BINARY_DIR}/RavelinConfigVersion.cmake
  DESTINATION ${config_dir} COMPONENT development)

# The prefix is relative to the .pc file, so that the installed tree is relocatable.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE RAVELIN_PC_PREFIX)
set(RAVELIN_PC_REQUIRES Requires)
set(RAVELIN_PC_RUNTIME "")
if(BUILD_SHARED_LIBS)
  set(RAVELIN_PC_REQUIRES Requires.private)
else() # a C linker does not add the C++ runtime
  set(cxx_runtime ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
  list(FILTER cxx_runtime INCLUDE REGEX "^(stdc\\+\\+|c\\+\\+.*|m)$")
  list(REMOVE_DUPLICATES cxx_runtime)
  list(TRANSFORM cxx_runtime PREPEND -l)
  list(JOIN cxx_runtime " " RAVELIN_PC_RUNTIME)
  target_link_libraries(ravelin INTERFACE "$<INSTALL_INTERFACE:${cxx_runtime}>")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/ravelin.pc.in ${PROJECT_BINARY_DIR}/ravelin.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ravelin.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# One manual page for all functions of the C interface, which is also found by the name of each.
install(FILES ${PROJECT_SOURCE_DIR}/man/ravelin.3
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
file(STRINGS ${PROJECT_SOURCE_DIR}/man/ravelin.3 functions REGEX "^\\.BI? .* \\*?ravelin_[a-z_]+\\(")
list(TRANSFORM functions REPLACE ".*(ravelin_[a-z_]+)\\(.*" "\\1")
foreach(function IN LISTS functions)
  file(WRITE ${PROJECT_BINARY_DIR}/man3/${function}.3 ".so man3/ravelin.3\n")
  install(FILES ${PROJECT_BINARY_DIR}/man3/${function}.3
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
endforeach()

if(TARGET ravelin_cli)
  install(TARGETS ravelin_cli
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT program)
  install(FILES ${PROJECT_SOURCE_DIR}/man/ravelin.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT program)
  # Debian's zsh has a separate directory for packages. The prefix is known at install time only.
  install(CODE "
    set(zsh_dir \"\${CMAKE_INSTALL_PREFIX}\")
    cmake_path(APPEND zsh_dir \"${CMAKE_INSTALL_DATADIR}\" zsh)
    if(CMAKE_INSTALL_PREFIX MATCHES /usr/?$)
      cmake_path(APPEND zsh_dir vendor-completions)
    else()
      cmake_path(APPEND zsh_dir site-functions)
    endif()
    file(INSTALL \"${PROJECT_SOURCE_DIR}/completions/_ravelin\" DESTINATION \"\${zsh_dir}\")"
    COMPONENT program)
  install(FILES ${PROJECT_SOURCE_DIR}/completions/ravelin.fish
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT program)
  install(FILES ${PROJECT_SOURCE_DIR}/completions/ravelin.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ravelin
    COMPONENT program)
endif()
