# A layer is an object library, so that libravelin is a single file, static or shared.
function(ravelin_add_layer name)
  add_library(${name} OBJECT ${ARGN})
  target_compile_features(${name} PUBLIC cxx_std_20)
  set_target_properties(${name} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${name} PUBLIC Threads::Threads)
endfunction()
