# A program that a service manager runs: itself, and its unit, packaging/<name>.service.in. That
# names the program where it is put, which only the installation knows; it is written where it
# is to be, as several installations of a build may be made at a time.
function(tq_install_program name)
  install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(CODE "set(TQ_INSTALLED_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
set(unit \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/system/${name}.service\")
message(STATUS \"Installing: \$ENV{DESTDIR}\${unit}\")
configure_file(\"${PROJECT_SOURCE_DIR}/packaging/${name}.service.in\" \"\$ENV{DESTDIR}\${unit}\"
               @ONLY NO_SOURCE_PERMISSIONS)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${unit}\")")
endfunction()
