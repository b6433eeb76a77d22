# A program that a service manager runs: itself, and its unit, packaging/<name>.service.in. That
# names the program where it is put, which only the installation knows.
function(tq_install_program name)
  install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  set(unit ${CMAKE_CURRENT_BINARY_DIR}/${name}.service)
  install(CODE "set(TQ_INSTALLED_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
configure_file(\"${PROJECT_SOURCE_DIR}/packaging/${name}.service.in\" \"${unit}\" @ONLY)")
  install(FILES ${unit} DESTINATION lib/systemd/system)
endfunction()
