# The packages that scripts/package makes with CPack: for Linux a Debian package and an archive of the same programs, for
# Windows an archive. package_contents.cmake completes what is staged for each.
set(CPACK_PACKAGE_NAME kestrun)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_VENDOR "Kestrun contributors")
set(CPACK_PACKAGE_CONTACT "Kestrun contributors <contributors@kestrun.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "limits how many tools the builds of a user run at once")
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_SOURCE_DIR}/cmake/package_contents.cmake")
set(CPACK_POST_BUILD_SCRIPTS "${CMAKE_SOURCE_DIR}/cmake/package_order.cmake")
set(CPACK_KESTRUN_SOURCES "${CMAKE_SOURCE_DIR}")
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(system windows)
else()
  set(CPACK_GENERATOR DEB TGZ)
  set(system linux)
endif()
set(CPACK_SYSTEM_NAME "${system}-${CMAKE_SYSTEM_PROCESSOR}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_PACKAGE_DESCRIPTION
"Kestrun stands between builds and their tools. One master serves all builds
of a user; every compiler, linker or other command that a build runs through
it gets the output, exit code, environment and terminal that it would have
without, and only so many run at once, whatever -j the builds were given.
When a build is over or is interrupted, nothing of it is left running.
.
Nothing is cached, and no job leaves the machine.")
include(CPack)
