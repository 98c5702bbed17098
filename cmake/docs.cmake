# Target `docs`: reference of the installed headers, in docs/html of the build directory. Public
# names without a comment are errors.
find_package(Doxygen REQUIRED)

set(DOXYGEN_PROJECT_BRIEF "${PROJECT_DESCRIPTION}")
set(DOXYGEN_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/docs)
file(GLOB integrations ${PROJECT_SOURCE_DIR}/integrations/*)
set(DOXYGEN_STRIP_FROM_PATH ${PROJECT_SOURCE_DIR}/include ${integrations} ${PROJECT_SOURCE_DIR})
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE ${PROJECT_SOURCE_DIR}/docs/reference.md)
set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
set(DOXYGEN_QUIET YES)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_HAVE_DOT NO)
set(DOXYGEN_WARN_IF_UNDOCUMENTED YES)
set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
set(DOXYGEN_EXCLUDE_SYMBOLS operator* RavelinOperation::MainFileState)
set(DOXYGEN_BUILTIN_STL_SUPPORT YES)
set(DOXYGEN_MACRO_EXPANSION YES) # Doxygen takes thread annotations for types
set(DOXYGEN_EXPAND_ONLY_PREDEF YES)
set(DOXYGEN_PREDEFINED MAIN_ONLY= BG_ONLY= MAIN_STATE=)
doxygen_add_docs(docs include/ravelin integrations docs/reference.md
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} COMMENT "Generating the header reference")

if(RAVELIN_BUILD_TESTS)
  add_test(NAME docs COMMAND Doxygen::doxygen ${CMAKE_CURRENT_BINARY_DIR}/Doxyfile.docs
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
endif()
