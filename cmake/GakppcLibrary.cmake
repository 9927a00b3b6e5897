# libgakppc.so.

set(GAKPPC_COMMON_DIR "${PROJECT_SOURCE_DIR}/qel/common/src")
set(GAKPPC_PPC_DIR "${PROJECT_SOURCE_DIR}/qel/device/src/ppc")
set(GAKPPC_GAK_DIR "${PROJECT_SOURCE_DIR}/qel/device/src/gak")
set(GAKPPC_EXPORT_LIST "${PROJECT_SOURCE_DIR}/cmake/gakppc.map")

set(GAKPPC_PUBLIC_HEADERS
    "${GAKPPC_COMMON_DIR}/gakppc_export.h"
    "${GAKPPC_COMMON_DIR}/gak_limits.h"
    "${GAKPPC_COMMON_DIR}/log.h"
    "${GAKPPC_COMMON_DIR}/status_factory.h"
    "${GAKPPC_COMMON_DIR}/status_table.h"
    "${GAKPPC_COMMON_DIR}/string_util.h"
    "${GAKPPC_PPC_DIR}/ppc.h"
    "${GAKPPC_GAK_DIR}/gak.h"
    "${GAKPPC_GAK_DIR}/ppc_client.h"
    "${GAKPPC_GAK_DIR}/ppc_interface.h"
    "${GAKPPC_GAK_DIR}/ppc_server.h"
    "${GAKPPC_GENERATED_DIR}/qel_message.pb.h")

add_library(gakppc SHARED
            "${GAKPPC_COMMON_DIR}/log.cpp"
            "${GAKPPC_COMMON_DIR}/own_pid.cpp"
            "${GAKPPC_COMMON_DIR}/status_factory.cpp"
            "${GAKPPC_COMMON_DIR}/string_util.cpp"
            "${GAKPPC_COMMON_DIR}/tracepoints.cpp"
            "${GAKPPC_PPC_DIR}/ppc_io.cpp"
            "${GAKPPC_PPC_DIR}/ppc_msg.cpp"
            "${GAKPPC_PPC_DIR}/ppc_path.cpp"
            "${GAKPPC_PPC_DIR}/ppc_record.cpp"
            "${GAKPPC_PPC_DIR}/ppc_session.cpp"
            "${GAKPPC_PPC_DIR}/sigpipe_guard.cpp"
            "${GAKPPC_GAK_DIR}/client_sessions.cpp"
            "${GAKPPC_GAK_DIR}/gak.cpp"
            "${GAKPPC_GAK_DIR}/handler_table.cpp"
            "${GAKPPC_GAK_DIR}/library_thread.cpp"
            "${GAKPPC_GAK_DIR}/ppc_client.cpp"
            "${GAKPPC_GAK_DIR}/ppc_interface.cpp"
            "${GAKPPC_GAK_DIR}/ppc_server.cpp"
            "${GAKPPC_GAK_DIR}/ppc_server_recv.cpp"
            "${GAKPPC_GAK_DIR}/receive_threads.cpp"
            "${GAKPPC_GAK_DIR}/session_list.cpp"
            "${GAKPPC_GAK_DIR}/session_table.cpp"
            $<TARGET_OBJECTS:gakppc_messages>)
add_library(gakppc::gakppc ALIAS gakppc)
add_dependencies(gakppc gakppc_messages)

gakppc_own_code(gakppc)
gakppc_hardened(gakppc)
gakppc_measured(gakppc)
set_target_properties(gakppc PROPERTIES
                      VERSION ${PROJECT_VERSION}
                      SOVERSION ${PROJECT_VERSION_MAJOR}
                      CXX_VISIBILITY_PRESET hidden
                      VISIBILITY_INLINES_HIDDEN ON
                      INTERPROCEDURAL_OPTIMIZATION OFF
                      LINK_DEPENDS "${GAKPPC_EXPORT_LIST}")
# Embedding processes interpose exported functions, so calls among them go through the dynamic linker as well.
target_compile_options(gakppc PRIVATE -fsemantic-interposition)
# Every message asks for thread-local flags. Found without a call; the few bytes fit in the room that the C library keeps
# for objects that are loaded late.
target_compile_options(gakppc PRIVATE -ftls-model=initial-exec)
# Threads of the library may run until the process ends: dlclose must not unmap their code.
target_link_options(gakppc PRIVATE LINKER:--version-script=${GAKPPC_EXPORT_LIST} LINKER:-z,nodelete)
if(GAKPPC_TRACEPOINTS_ARE_BUILT)
    target_compile_definitions(gakppc PRIVATE GAKPPC_HAS_TRACEPOINTS)
endif()
target_compile_features(gakppc PUBLIC cxx_std_17)
target_link_libraries(gakppc
                      PUBLIC protobuf::libprotobuf Threads::Threads
                      PRIVATE gakppc::vlog gakppc::osal gakppc::memguard)

# Public headers are next to their sources and include each other by plain file name. Programs write
# <gakppc/gak.h>: the build tree offers that as a folder of links, the installation as one flat folder.
set(GAKPPC_STAGED_INCLUDE_DIR "${PROJECT_BINARY_DIR}/include")
file(MAKE_DIRECTORY "${GAKPPC_STAGED_INCLUDE_DIR}/gakppc")
foreach(header IN LISTS GAKPPC_PUBLIC_HEADERS)
    get_filename_component(name "${header}" NAME)
    file(CREATE_LINK "${header}" "${GAKPPC_STAGED_INCLUDE_DIR}/gakppc/${name}" SYMBOLIC)
endforeach()
target_include_directories(gakppc PUBLIC
                           $<BUILD_INTERFACE:${GAKPPC_COMMON_DIR}>
                           $<BUILD_INTERFACE:${GAKPPC_PPC_DIR}>
                           $<BUILD_INTERFACE:${GAKPPC_GAK_DIR}>
                           $<BUILD_INTERFACE:${GAKPPC_STAGED_INCLUDE_DIR}>
                           $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_include_directories(gakppc SYSTEM PUBLIC $<BUILD_INTERFACE:${GAKPPC_GENERATED_DIR}>)

