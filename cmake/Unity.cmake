# tq_unity(<target>... [DIFFER <name>...] [ALONE <source>...]): with TQ_UNITY the
# compiler gets the sources of the targets many at a time, which takes a fraction of the
# time: what headers define, and templates of test, command line and JSON libraries, is
# compiled once for all of them. Names in such sources must differ from file to file, those
# in unnamed namespaces as well. SOURCE and OPERATION, which files have for the log, are made
# to differ here, and so are those of DIFFER. Sources of ALONE, whose names others have too,
# and those with options of their own are compiled by themselves.
function(tq_unity)
  cmake_parse_arguments(arg "" "" "DIFFER;ALONE" ${ARGN})
  if(TQ_UNITY)
    set_source_files_properties(${arg_ALONE} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
    set(before "#define TQ_UNITY_JOINED(a, b) a##b\n#define TQ_UNITY_NAME(a, b) TQ_UNITY_JOINED(a, b)")
    foreach(name SOURCE OPERATION ${arg_DIFFER})
      string(APPEND before "\n#undef ${name}\n#define ${name} TQ_UNITY_NAME(${name}_, TQ_UNITY_ID)")
    endforeach()
    set_target_properties(${arg_UNPARSED_ARGUMENTS} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 24
      UNITY_BUILD_UNIQUE_ID TQ_UNITY_ID UNITY_BUILD_CODE_BEFORE_INCLUDE "${before}")
    # The compiler takes a source that is included for a header, which should
    # have no unnamed namespace.
    foreach(target IN LISTS arg_UNPARSED_ARGUMENTS)
      target_compile_options(${target} PRIVATE
        $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
    endforeach()
  endif()
endfunction()

# Of such sources GCC keeps up to 1.6 GB rather than look again and again for what it could
# free, which takes an eighth of the time of the tests' sources.
if(TQ_UNITY AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  add_compile_options(--param=ggc-min-heapsize=2000000 --param=ggc-min-expand=400)
endif()

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
