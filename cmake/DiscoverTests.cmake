# tq_discover_tests(<program> [<property> <value>]...): makes a CTest test of each
# test of a GoogleTest program, with these properties and the program's name as
# its label, once the program is built. A test is called after the file that it
# stands in, so that "ctest -R DiscDB" finds all tests of the files DiscDB*:
# <file>.<suite>.<test>, without the suite where it is called as the file.
#
# Each runs as a process of its own, in the program's build folder.
if(NOT CMAKE_SCRIPT_MODE_FILE)
  function(tq_discover_tests program)
    set(list ${CMAKE_CURRENT_BINARY_DIR}/${program}_tests.cmake)
    set(includer ${CMAKE_CURRENT_BINARY_DIR}/${program}_include.cmake)
    string(REPLACE ";" " " properties "${ARGN}")
    add_custom_command(TARGET ${program} POST_BUILD BYPRODUCTS ${list} VERBATIM
      COMMAND ${CMAKE_COMMAND} -D PROGRAM=$<TARGET_FILE:${program}> -D "PROPERTIES=${properties}"
              -D LIST=${list} -D NAME=${program} -D FOLDER=${CMAKE_CURRENT_BINARY_DIR}
              -P ${PROJECT_SOURCE_DIR}/cmake/DiscoverTests.cmake)
    # A program that was not built is a test that fails.
    file(WRITE ${includer} "if(EXISTS \"${list}\")\n  include(\"${list}\")\n"
                           "else()\n  add_test(${program}_NOT_BUILT ${program}_NOT_BUILT)\nendif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${includer})
  endfunction()
  return()
endif()

set(json ${LIST}.json)
execute_process(COMMAND ${PROGRAM} --gtest_list_tests --gtest_output=json:${json}
                WORKING_DIRECTORY ${FOLDER} TIMEOUT 60 OUTPUT_QUIET RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} does not list its tests: ${result}")
endif()

# By lines: asking for thousands of values would read the whole text for each.
file(STRINGS ${json} lines REGEX "^ +\"(name|file)\": ")
set(script "")
set(count 0)
foreach(line IN LISTS lines)
  string(REPLACE [=[\/]=] "/" line "${line}") # of tests with parameters
  if(line MATCHES "^      \"name\": \"(.*)\",$")
    set(suite ${CMAKE_MATCH_1})
  elseif(line MATCHES "^          \"name\": \"(.*)\",$")
    set(test ${CMAKE_MATCH_1})
  elseif(line MATCHES "^          \"file\": \".*/([^/]+)\\.cpp\",$")
    set(stem ${CMAKE_MATCH_1})
    set(name ${stem}.${suite}.${test})
    if(suite STREQUAL stem)
      set(name ${suite}.${test})
    endif()
    string(APPEND script
      "add_test([=[${name}]=] \"${PROGRAM}\" [=[--gtest_filter=${suite}.${test}]=] "
      "--gtest_also_run_disabled_tests)\n"
      "set_tests_properties([=[${name}]=] PROPERTIES WORKING_DIRECTORY \"${FOLDER}\" "
      "SKIP_REGULAR_EXPRESSION [=[\\[  SKIPPED \\]]=] FAIL_REGULAR_EXPRESSION [=[Running 0 tests]=] "
      "LABELS ${NAME} ${PROPERTIES})\n")
    math(EXPR count "${count} + 1")
  endif()
endforeach()
if(count EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} has no tests")
endif()
file(WRITE ${LIST} "${script}")
