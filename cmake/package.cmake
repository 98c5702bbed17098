# Quick Debian packages, by cpack; debian/ makes those for a distribution. A shared build has a
# separate package for the library.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "The ravelin developers <ravelin@ravelin.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "download files over HTTP in parts and continue them")
set(CPACK_PACKAGE_DESCRIPTION
  "Fetches a file over several connections at once, can be stopped at any moment, and continues
 where it left off, in the same process or another.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Explicit: shlibdeps looks at functions, and the minimum version is due to options.
set(libcurl "libcurl4 (>= 7.87)")

set(libcurl_dev "libcurl4-openssl-dev | libcurl4-gnutls-dev") # required by the .pc file
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libravelin-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Development files of the ravelin download library.")
if(BUILD_SHARED_LIBS)
  list(APPEND CPACK_COMPONENTS_ALL library)
  get_target_property(soversion ravelin SOVERSION)
  set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libravelin${soversion})
  set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS ${libcurl})
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON) # there is no per-package variable
  set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "The ravelin download library.")
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME} (= ${PROJECT_VERSION}), ${libcurl_dev}")
else()
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ${libcurl_dev})
endif()
if(TARGET ravelin_cli)
  list(APPEND CPACK_COMPONENTS_ALL program)
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME ravelin)
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION net)
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS ${libcurl})
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_RECOMMENDS ca-certificates)
  set(CPACK_COMPONENT_PROGRAM_DESCRIPTION "The ravelin command-line download program.")
endif()

include(CPack)
