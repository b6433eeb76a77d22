# tq_split_debug(<target> <destination>): strips the target where it was
# installed, and puts its debug data below the prefix's lib/debug, where debuggers
# look for it. Everything of a target is installed before. A build for a
# sanitizer stays whole: its reports name functions.
function(tq_split_debug target destination)
  if(NOT TQ_SPLIT_DEBUG OR TQ_SANITIZE OR TQ_THREAD_SANITIZE OR NOT CMAKE_OBJCOPY)
    return()
  endif()
  install(CODE "set(place \"\${CMAKE_INSTALL_PREFIX}/${destination}\")
set(installed \"\$ENV{DESTDIR}\${place}/$<TARGET_FILE_NAME:${target}>\")
set(folder \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/debug\${place}\")
set(apart \"\${folder}/$<TARGET_FILE_NAME:${target}>.debug\")
file(MAKE_DIRECTORY \"\${folder}\")
message(STATUS \"Installing: \${apart}\")
execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --only-keep-debug \"\${installed}\" \"\${apart}\"
                COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --strip-unneeded --remove-section=.gnu_debuglink
                        \"--add-gnu-debuglink=\${apart}\" \"\${installed}\"
                COMMAND_ERROR_IS_FATAL ANY)
file(CHMOD \"\${apart}\" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)")
endfunction()
