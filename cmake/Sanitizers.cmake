if(TQ_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  # What GCC defines itself; and what an enumeration does not name is for the assertions.
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    add_compile_definitions(__SANITIZE_ADDRESS__=1)
    add_compile_options(-fno-sanitize=enum)
  endif()
endif()
# ThreadSanitizer has to see all that threads do: what is linked besides is built
# for it by tests/tsan/build-libraries.sh, or compiled here with what includes it.
set(TQ_SPDLOG spdlog::spdlog)
if(TQ_THREAD_SANITIZE)
  # With what it adds GCC 12 takes a string that was moved from for an array too short.
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -Wno-array-bounds
                      -Wno-stringop-overflow -Wno-stringop-overread)
  add_link_options(-fsanitize=thread)
  set(TQ_SPDLOG spdlog::spdlog_header_only)
endif()
# The targets themselves get libFuzzer's main when they are linked.
if(TQ_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
