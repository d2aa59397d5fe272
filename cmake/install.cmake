# What cmake --install puts where. Nothing that is installed holds the prefix, so the installed tree can be moved:
# dorn looks for kestrun beside itself, and neither reads any other file of the installation.
include(GNUInstallDirs)

if(WIN32)
  # The programs and what there is to read in one folder, as an archive for Windows has them.
  set(bin .)
  set(doc .)
else()
  set(bin "${CMAKE_INSTALL_BINDIR}")
  set(doc "${CMAKE_INSTALL_DOCDIR}")
  install(FILES docs/kestrun.1 docs/dorn.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
endif()

if(KESTRUN_COMPLETIONS)
  set(data "${CMAKE_INSTALL_DATADIR}")
  install(DIRECTORY "${KESTRUN_COMPLETIONS}/bash/" DESTINATION "${data}/bash-completion/completions")
  install(DIRECTORY "${KESTRUN_COMPLETIONS}/zsh/" DESTINATION "${data}/zsh/site-functions")
  install(DIRECTORY "${KESTRUN_COMPLETIONS}/fish/" DESTINATION "${data}/fish/vendor_completions.d")
endif()
install(TARGETS kestrun dorn RUNTIME DESTINATION "${bin}")
install(FILES LICENSE README.md CHANGELOG.md SECURITY.md DESTINATION "${doc}")
# The pages keep their folder, so that the links between them and the README hold.
install(DIRECTORY docs/ DESTINATION "${doc}/docs" FILES_MATCHING PATTERN "*.md" PATTERN "*.png")
install(DIRECTORY examples/ DESTINATION "${doc}/examples" USE_SOURCE_PERMISSIONS)

configure_file("${CMAKE_SOURCE_DIR}/cmake/uninstall.cmake.in" "${CMAKE_BINARY_DIR}/uninstall.cmake" @ONLY)
add_custom_target(uninstall COMMAND "${CMAKE_COMMAND}" -P "${CMAKE_BINARY_DIR}/uninstall.cmake" USES_TERMINAL
                  COMMENT "Removing what the last cmake --install put in place")
