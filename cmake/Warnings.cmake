# The warnings every source of the project is compiled with. Generated stubs
# are exempt: they are compiled with -w.
add_library(tq_warnings INTERFACE)
target_compile_options(tq_warnings INTERFACE -Wall -Wextra -Wpedantic -Werror -Wshadow
                                             -Wnon-virtual-dtor -Woverloaded-virtual
                                             -Wcast-qual -Wformat=2)
target_include_directories(tq_warnings INTERFACE ${PROJECT_SOURCE_DIR})
