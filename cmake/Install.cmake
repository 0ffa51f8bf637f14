# Installed layout under CMAKE_INSTALL_PREFIX (default /usr/local/quarnelix,
# the prefix named in the module's run path):
#   bin/ftrace-agent
#   lib/libsdk.so lib/libframework.so       the host platform
#   module/libftrace_module.so              modules the agent loads
#   include/{Framework,SDK,ftrace_module}   headers for module authors
#   lib/cmake/FtraceModule, lib/pkgconfig   find_package(FtraceModule), pkg-config ftrace-module
#   share/ftrace-agent                      example systemd unit and example module
# Every binary finds its neighbours through $ORIGIN, so another prefix works too.

include(CMakePackageConfigHelpers)

set(FTRACE_PACKAGE_DIR lib/cmake/FtraceModule)

install(TARGETS ftrace-agent RUNTIME DESTINATION bin)
install(TARGETS sdk framework LIBRARY DESTINATION lib)
install(TARGETS ftrace_module LIBRARY DESTINATION module)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/Framework ${PROJECT_SOURCE_DIR}/platform/include/SDK
  DESTINATION include FILES_MATCHING PATTERN "*.h")
file(GLOB FTRACE_PUBLIC_HEADERS
  ${PROJECT_SOURCE_DIR}/message/src/*.h
  ${PROJECT_SOURCE_DIR}/native_module/module_ftrace/src/*.h)
install(FILES ${FTRACE_PUBLIC_HEADERS} DESTINATION include/ftrace_module)

configure_file(${CMAKE_CURRENT_LIST_DIR}/FtraceModuleConfig.cmake.in
  ${PROJECT_BINARY_DIR}/FtraceModuleConfig.cmake @ONLY)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/FtraceModuleConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/FtraceModuleConfig.cmake ${PROJECT_BINARY_DIR}/FtraceModuleConfigVersion.cmake
  DESTINATION ${FTRACE_PACKAGE_DIR})

# Written at install time so that it names the prefix actually installed to
# (cmake --install --prefix), also under DESTDIR.
install(CODE "
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  set(FTRACE_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  message(STATUS \"Installing: \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/pkgconfig/ftrace-module.pc\")
  configure_file(\"${CMAKE_CURRENT_LIST_DIR}/ftrace-module.pc.in\"
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/pkgconfig/ftrace-module.pc\" @ONLY)")

install(FILES ${PROJECT_SOURCE_DIR}/packaging/ftrace-agent.service DESTINATION share/ftrace-agent)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/exec_logger ${PROJECT_SOURCE_DIR}/examples/nats_tail
  DESTINATION share/ftrace-agent/examples)

# cpack -G DEB in the build directory: one package with everything above.
set(CPACK_PACKAGE_NAME "ftrace-agent")
set(CPACK_PACKAGE_VENDOR "ftrace_module")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Kernel trace events for a host security agent (ftrace module and agent)")
set(CPACK_PACKAGE_CONTACT "ftrace_module maintainers <root@localhost>")
set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGING_INSTALL_PREFIX "${FTRACE_INSTALL_ROOT}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "admin")
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "libtraceevent1 (>= 1:1.7), libtracefs1 (>= 1.6), libpocofoundation80, libpocoutil80, libnats3.4, libstdc++6, libc6")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "nats-server, libnats-dev, libtraceevent-dev, libtracefs-dev, libpoco-dev, cmake, pkg-config")
include(CPack)
