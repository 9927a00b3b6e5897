# What `cmake --install` gives: the library, its headers in one folder, the schema, a CMake package and a pkg-config
# file. Both find the library from their own place, so that the prefix may be moved. The target `uninstall` takes away
# what was installed last.

include(CMakePackageConfigHelpers)

set(GAKPPC_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/gakppc")

# A component, so that the library alone can be installed and looked at (tests/hardening).
install(TARGETS gakppc EXPORT gakppcTargets LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime)
gakppc_run_path(gakppc "${CMAKE_INSTALL_LIBDIR}/$<TARGET_FILE_NAME:gakppc>" COMPONENT runtime)
install(FILES ${GAKPPC_PUBLIC_HEADERS} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/gakppc")
install(FILES "${GAKPPC_PROTO_DIR}/qel_message.proto" DESTINATION "${CMAKE_INSTALL_DATADIR}/gakppc")

install(EXPORT gakppcTargets NAMESPACE gakppc:: DESTINATION "${GAKPPC_CMAKE_DIR}")
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/gakppcConfig.cmake.in" gakppcConfig.cmake
                              INSTALL_DESTINATION "${GAKPPC_CMAKE_DIR}" PATH_VARS CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(gakppcConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/gakppcConfig.cmake" "${CMAKE_CURRENT_BINARY_DIR}/gakppcConfigVersion.cmake"
              "${CMAKE_CURRENT_LIST_DIR}/gakppcLoaderPath.cmake"
        DESTINATION "${GAKPPC_CMAKE_DIR}")

file(RELATIVE_PATH GAKPPC_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" GAKPPC_PC_TO_PREFIX "${GAKPPC_PC_TO_PREFIX}")
configure_file("${CMAKE_CURRENT_LIST_DIR}/gakppc.pc.in" gakppc.pc @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/gakppc.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

if(GAKPPC_TOP_LEVEL)
    install(CODE "file(WRITE \"${PROJECT_BINARY_DIR}/install_prefix.txt\" \"\${CMAKE_INSTALL_PREFIX}\")")
    add_custom_target(uninstall
                      COMMAND "${CMAKE_COMMAND}" "-DBUILD=${PROJECT_BINARY_DIR}"
                              -P "${CMAKE_CURRENT_LIST_DIR}/uninstall.cmake"
                      VERBATIM)
endif()
