# SPDX-License-Identifier: Apache-2.0
# Installs the library, its public headers, a CMake package (find_package, then link
# vrocam::ipc_wrapper_common_client) and a pkg-config file (vrocam_ipc_wrapper_common_client).
# The "host" component adds the peer daemon, the headers of its socket client
# (vrocam::ipc_host_client), the test kit (vrocam::testkit, its pkg-config file vrocam_testkit,
# vrocam_peer_run and vrocam_add_peer_test()) and vrocam_trace_merge. Everything finds what it needs through run paths
# relative to itself, so the prefix can be anywhere and moved.
include(CMakePackageConfigHelpers)

set(VROCAM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vrocam_ipc_wrapper_common_client)
set(VROCAM_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/vrocam)
# The stand-ins have the closed libraries' names (libcutils.so among them): in a directory of their
# own they cannot shadow, or be shadowed by, a real library of that name in the prefix's lib/.
set(VROCAM_HOST_LIBDIR ${CMAKE_INSTALL_LIBDIR}/vrocam-host)

# The library: beside it the package files, in lib/vrocam-host/ the stand-ins it runs with.
vrocam_relative_path(lib_to_host ${CMAKE_INSTALL_LIBDIR} ${VROCAM_HOST_LIBDIR})
set_target_properties(vrocam_ipc_wrapper_common_client PROPERTIES
  EXPORT_NAME ipc_wrapper_common_client INSTALL_RPATH "$ORIGIN/${lib_to_host}")
install(TARGETS vrocam_ipc_wrapper_common_client EXPORT vrocamTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library)
install(TARGETS vrocam_ulog vrocam.debugwrapper vrocam_sysutils vrocam_ipc_wrapper_vro_client cutils
        EXPORT vrocamTargets
        LIBRARY DESTINATION ${VROCAM_HOST_LIBDIR} COMPONENT library)
install(FILES ipc/wrapper/common/include/IPCClientShmMgr.h
              ipc/wrapper/common/include/IPCShmTypes.h
              ipc/wrapper/common/include/VrocamExport.h
              utils/sys/SharedMemory.h utils/sys/BootMode.h
              platform/sysutils/include/FileDescriptor.h
        DESTINATION ${VROCAM_INCLUDE_DIR} COMPONENT library)
install(EXPORT vrocamTargets NAMESPACE vrocam:: DESTINATION ${VROCAM_CMAKE_DIR}
        COMPONENT library)
configure_package_config_file(cmake/Config.cmake.in
  ${PROJECT_BINARY_DIR}/vrocam_ipc_wrapper_common_clientConfig.cmake
  INSTALL_DESTINATION ${VROCAM_CMAKE_DIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/vrocam_ipc_wrapper_common_clientConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vrocam_ipc_wrapper_common_clientConfig.cmake
              ${PROJECT_BINARY_DIR}/vrocam_ipc_wrapper_common_clientConfigVersion.cmake
        DESTINATION ${VROCAM_CMAKE_DIR} COMPONENT library)

# pkg-config, beside the CMake package; its prefix is found from where the file lies.
vrocam_relative_path(VROCAM_PC_TO_PREFIX ${CMAKE_INSTALL_LIBDIR}/pkgconfig "")
configure_file(cmake/vrocam_ipc_wrapper_common_client.pc.in
  ${PROJECT_BINARY_DIR}/vrocam_ipc_wrapper_common_client.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vrocam_ipc_wrapper_common_client.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT library)

# The host component: the headers of the socket client, and the peer daemon when it is built.
set_target_properties(vrocam_ipc_host_client PROPERTIES EXPORT_NAME ipc_host_client)
target_include_directories(vrocam_ipc_host_client INTERFACE
  $<INSTALL_INTERFACE:${VROCAM_INCLUDE_DIR}/host> $<INSTALL_INTERFACE:${VROCAM_INCLUDE_DIR}>)
install(TARGETS vrocam_ipc_host_client EXPORT vrocamHostTargets)
install(FILES platform/vro_client/include/SocketClient.h platform/vro_client/include/PeerCommands.h
              ipc/wrapper/client/IPCClient.h
        DESTINATION ${VROCAM_INCLUDE_DIR}/host COMPONENT host)
if(VROCAM_BUILD_TOOLS)
  vrocam_relative_path(bin_to_host ${CMAKE_INSTALL_BINDIR} ${VROCAM_HOST_LIBDIR})
  vrocam_relative_path(bin_to_lib ${CMAKE_INSTALL_BINDIR} ${CMAKE_INSTALL_LIBDIR})
  set_target_properties(vrocam_ipc_peer PROPERTIES
    EXPORT_NAME ipc_peer INSTALL_RPATH "$ORIGIN/${bin_to_host}")
  set_target_properties(vrocam_peer_run PROPERTIES
    EXPORT_NAME peer_run INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  set_target_properties(vrocam_trace_merge PROPERTIES EXPORT_NAME trace_merge)
  install(TARGETS vrocam_ipc_peer vrocam_peer_run vrocam_trace_merge EXPORT vrocamHostTargets
          RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT host)
  # The test kit: its library runs the peer in the bin/ beside its lib/.
  install(TARGETS vrocam_testkit EXPORT vrocamHostTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT host)
  install(DIRECTORY kit/include/vrocam/testkit DESTINATION ${VROCAM_INCLUDE_DIR} COMPONENT host)
  install(FILES cmake/VrocamPeerTest.cmake DESTINATION ${VROCAM_CMAKE_DIR} COMPONENT host)
  configure_file(cmake/vrocam_testkit.pc.in ${PROJECT_BINARY_DIR}/vrocam_testkit.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/vrocam_testkit.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT host)
endif()
install(EXPORT vrocamHostTargets NAMESPACE vrocam:: DESTINATION ${VROCAM_CMAKE_DIR} COMPONENT host)
