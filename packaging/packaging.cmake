# Installation layout and the Debian package (CPack).
#
#   /usr/bin/tolvarind                          the daemon
#   /usr/lib/systemd/system/tolvarind.service   its unit (runs as root, restarts it)
#   /usr/lib/tmpfiles.d/tolvarind.conf          makes the log directory (ages out old logs)
#                                               and the peer's directory at boot
#   /usr/share/man/man8/tolvarind.8.gz          the manual page
#   /usr/share/doc/tolvarind/                   README, docs/*.md, copyright, changelog
#   /usr/share/lintian/overrides/tolvarind      the overrides the fixed paths and log texts need
#   /opt/apps/morvasta/log/                     empty; glog writes here and does not create it
#
# The paths the daemon itself uses are read from sdp_paths.h, so that they are
# written down once. docs/packaging.md explains the choices.

# A system service: default to /usr, as Debian packages do, so that a plain
# `cmake --install` and the .deb put the binary where the unit looks for it.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Install prefix" FORCE)
endif()
include(GNUInstallDirs)
# Installing (and CPack) takes what is built instead of building every test
# first: build the daemon, then install or package it (make package does both).
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

function(tolvarind_fixed_path out name)
  file(STRINGS ${PROJECT_SOURCE_DIR}/sdpcommon/include/sdp_paths.h line
       REGEX "constexpr char ${name}\\[\\] = \"")
  string(REGEX REPLACE ".*= \"([^\"]*)\".*" "\\1" value "${line}")
  if(value STREQUAL "" OR value STREQUAL "${line}")
    message(FATAL_ERROR "sdp_paths.h has no ${name}")
  endif()
  set(${out} "${value}" PARENT_SCOPE)
endfunction()

tolvarind_fixed_path(TOLVARIND_LOG_DIR kLogDir)
tolvarind_fixed_path(TOLVARIND_INSTALL_DIR kInstallDir)
tolvarind_fixed_path(TOLVARIND_CFS_DIR kCfsDir)
tolvarind_fixed_path(TOLVARIND_SYSTEM_APPS_DIR kSystemApplicationsDir)
tolvarind_fixed_path(TOLVARIND_HOME_DIR kHomeDir)
string(REGEX REPLACE "/$" "" TOLVARIND_SYSTEM_APPS_DIR "${TOLVARIND_SYSTEM_APPS_DIR}")
string(REGEX REPLACE "/$" "" TOLVARIND_HOME_DIR "${TOLVARIND_HOME_DIR}")

set(TOLVARIND_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING
    "Where the systemd unit goes, relative to the install prefix")
set(TOLVARIND_TMPFILES_DIR "lib/tmpfiles.d" CACHE STRING
    "Where the tmpfiles.d entry for the log directory goes, relative to the install prefix")

configure_file(${CMAKE_CURRENT_LIST_DIR}/tolvarind.service.in
               ${PROJECT_BINARY_DIR}/packaging/tolvarind.service @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/tolvarind.tmpfiles.in
               ${PROJECT_BINARY_DIR}/packaging/tolvarind.conf @ONLY)

if(TARGET tolvarind)
  install(TARGETS tolvarind RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  # A stripped install (the package) also drops the compilers' version
  # strings, as Debian's dh_strip does.
  install(CODE "if(CMAKE_INSTALL_DO_STRIP)
    execute_process(COMMAND ${CMAKE_OBJCOPY} --remove-section=.comment
      \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/tolvarind\")
  endif()" COMPONENT runtime)
endif()
install(FILES ${PROJECT_BINARY_DIR}/packaging/tolvarind.service
        DESTINATION ${TOLVARIND_SYSTEMD_UNIT_DIR} COMPONENT runtime)
install(FILES ${PROJECT_BINARY_DIR}/packaging/tolvarind.conf
        DESTINATION ${TOLVARIND_TMPFILES_DIR} COMPONENT runtime)
file(GLOB TOLVARIND_DOCS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${TOLVARIND_DOCS}
        ${CMAKE_CURRENT_LIST_DIR}/debian/copyright
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)

# The manual page and the Debian changelog go in compressed, as Debian wants
# them (gzip -9n: best compression, no time stamp, so the bytes are
# reproducible). Done when CMake configures, which an edit of either triggers.
function(tolvarind_gzip src dst)
  execute_process(COMMAND gzip -9nc ${src} OUTPUT_FILE ${dst} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "gzip ${src} failed")
  endif()
  set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${src})
endfunction()
tolvarind_gzip(${CMAKE_CURRENT_LIST_DIR}/tolvarind.8 ${PROJECT_BINARY_DIR}/packaging/tolvarind.8.gz)
tolvarind_gzip(${CMAKE_CURRENT_LIST_DIR}/debian/changelog
               ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz)
install(FILES ${PROJECT_BINARY_DIR}/packaging/tolvarind.8.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT runtime)
install(FILES ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME tolvarind
        COMPONENT runtime)
install(DIRECTORY DESTINATION ${TOLVARIND_LOG_DIR} COMPONENT runtime
        DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
                              GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tolvarind)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# The same address as in debian/changelog and debian/copyright.
set(CPACK_PACKAGE_CONTACT "tolvarind developers <tolvarind-dev@lists.example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "desktop-session client of the SDP sandbox peer daemon")
set(CPACK_PACKAGE_DESCRIPTION
    "tolvarind connects to the local peer daemon ventrald over a Unix socket,\n\
registers the session's sandbox, sends heartbeats, runs the commands the\n\
peer pushes and keeps the desktop launchers of the granted applications in\n\
step with the policy.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
# Only what the rules above install: no test or tool binaries.
set(CPACK_COMPONENTS_ALL runtime)
set(CPACK_DEB_COMPONENT_INSTALL OFF)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The version comes from the top entry of debian/changelog, whose upstream
# part must be the project's version.
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/debian/changelog TOLVARIND_CHANGELOG_TOP LIMIT_COUNT 1)
if(NOT TOLVARIND_CHANGELOG_TOP MATCHES "^tolvarind \\(${PROJECT_VERSION}-([0-9]+)\\) ")
  message(FATAL_ERROR "debian/changelog's top entry is not tolvarind (${PROJECT_VERSION}-N): "
                      "${TOLVARIND_CHANGELOG_TOP}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_1})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Runtime libraries come from dpkg-shlibdeps on the linked binary.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The illegal-access notification runs notify-send.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libnotify-bin")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/debian/postinst
    ${CMAKE_CURRENT_LIST_DIR}/debian/prerm
    ${CMAKE_CURRENT_LIST_DIR}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)

# The package test builds its own copy of the package with the CPack
# configuration above, runs lintian on it and looks inside it; a sanitizer
# build is no package. `make package` runs the same checks through the target
# checked_package, which keeps the package it checked in the build directory.
if(TARGET tolvarind AND TOLVARIND_SANITIZE STREQUAL "")
  set(TOLVARIND_PACKAGE_TEST
      ${CMAKE_CURRENT_LIST_DIR}/test_package.sh ${PROJECT_BINARY_DIR} $<TARGET_FILE:tolvarind>
      ${CMAKE_INSTALL_PREFIX} ${TOLVARIND_SYSTEMD_UNIT_DIR} ${TOLVARIND_TMPFILES_DIR}
      ${TOLVARIND_LOG_DIR} ${TOLVARIND_CFS_DIR})
  add_custom_target(checked_package
                    COMMAND ${CMAKE_COMMAND} -E env KEEP_DEB=${PROJECT_BINARY_DIR} ${TOLVARIND_PACKAGE_TEST}
                    USES_TERMINAL VERBATIM)
  add_dependencies(checked_package tolvarind)
  if(TOLVARIND_BUILD_TESTS)
    add_test(NAME package_contents COMMAND ${TOLVARIND_PACKAGE_TEST})
    set_tests_properties(package_contents PROPERTIES LABELS package TIMEOUT 180)
  endif()
endif()
