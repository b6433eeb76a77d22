# The warnings every source of the project is compiled with. Generated stubs
# are exempt: they are compiled with -w.
add_library(tq_warnings INTERFACE)
target_compile_options(tq_warnings INTERFACE -Wall -Wextra -Wpedantic -Werror -Wshadow
                                             -Wnon-virtual-dtor -Woverloaded-virtual
                                             -Wcast-qual -Wformat=2)
# Optimising, GCC 12 sees texts overlap wherever one is put before a string.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(tq_warnings INTERFACE -Wno-restrict)
endif()
target_include_directories(tq_warnings INTERFACE ${PROJECT_SOURCE_DIR})
