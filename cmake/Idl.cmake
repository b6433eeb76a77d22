# tq_idl(<target> <idl file>...): an object library of the stubs and skeletons
# of the files, and an include directory with their headers. The suffixes give
# the generated files the names of the layout: DiscoveryTypesC, DiscoveryServiceC.
find_program(OMNIIDL omniidl REQUIRED)

function(tq_idl target)
  set(directory ${CMAKE_CURRENT_BINARY_DIR}/idl)
  file(MAKE_DIRECTORY ${directory})
  set(sources)
  foreach(file IN LISTS ARGN)
    cmake_path(GET file STEM stem)
    add_custom_command(
      OUTPUT ${directory}/${stem}C.cpp ${directory}/${stem}C.h
      COMMAND ${OMNIIDL} -bcxx -Wbh=C.h -Wbs=C.cpp -C${directory} -I${PROJECT_SOURCE_DIR}/idl ${file}
      DEPENDS ${ARGN}
      VERBATIM)
    list(APPEND sources ${directory}/${stem}C.cpp)
  endforeach()
  add_library(${target} OBJECT ${sources})
  set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET default)
  target_include_directories(${target} SYSTEM PUBLIC ${directory})
  target_compile_options(${target} PRIVATE -w)
  target_link_libraries(${target} PUBLIC PkgConfig::OMNIORB)
endfunction()
