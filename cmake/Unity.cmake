# tq_unity(<target>...): with TQ_UNITY the compiler gets the sources of the
# targets many at a time, which takes less than half of the time: templates of test,
# command line and JSON libraries are then expanded once for all of them. Names in
# such sources must differ from file to file, those in unnamed namespaces as well.
# Files that have a SOURCE of their own for the log are compiled by themselves, and so
# not those of the libraries.
function(tq_unity)
  if(TQ_UNITY)
    set_target_properties(${ARGN} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 24)
    foreach(target IN LISTS ARGN)
      get_target_property(sources ${target} SOURCES)
      get_target_property(folder ${target} SOURCE_DIR)
      foreach(source IN LISTS sources)
        cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY ${folder})
        file(STRINGS ${source} logging REGEX "^constexpr char SOURCE\\[\\]" LIMIT_COUNT 1)
        if(logging)
          set_source_files_properties(${source} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
        endif()
      endforeach()
    endforeach()
    # The compiler takes a source that is included for a header, which should
    # have no unnamed namespace.
    foreach(target IN LISTS ARGN)
      target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
    endforeach()
  endif()
endfunction()

# tq_read_once(<target>): in whole builds the compiler reads what most sources of
# these libraries include of other projects once for each, which takes a third of the time
# that they take. Sources include what they use all the same: the builds of developers
# and of packages go without.
function(tq_read_once target)
  if(TQ_UNITY OR TQ_FUZZ)
    target_precompile_headers(${target} PRIVATE <algorithm> <chrono> <filesystem> <functional> <map>
      <memory> <mutex> <set> <sstream> <string> <thread> <unordered_map> <vector>
      <omniORB4/CORBA.h> <xercesc/sax/HandlerBase.hpp>)
  endif()
endfunction()
