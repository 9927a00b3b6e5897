# The Wireshark dissector: a script with the schema in it, which therefore follows every change of the schema. Installed
# into lib/wireshark/plugins, it is loaded without being asked for where that is Wireshark's own folder.

set(GAKPPC_DISSECTOR "${CMAKE_CURRENT_BINARY_DIR}/gakppc.lua")
set(descriptor "${CMAKE_CURRENT_BINARY_DIR}/qel_message.desc")
add_custom_command(
    OUTPUT "${GAKPPC_DISSECTOR}"
    COMMAND protobuf::protoc "--proto_path=${GAKPPC_PROTO_DIR}" "--descriptor_set_out=${descriptor}" qel_message.proto
    COMMAND ${CMAKE_COMMAND} "-DDESCRIPTOR=${descriptor}" "-DINPUT=${CMAKE_CURRENT_SOURCE_DIR}/wireshark/gakppc.lua.in"
            "-DOUTPUT=${GAKPPC_DISSECTOR}" -P "${CMAKE_CURRENT_SOURCE_DIR}/wireshark/embed_schema.cmake"
    DEPENDS "${GAKPPC_PROTO_DIR}/qel_message.proto" wireshark/gakppc.lua.in wireshark/embed_schema.cmake
            protobuf::protoc
    COMMENT "Wireshark dissector"
    VERBATIM)
add_custom_target(gakppc_dissector ALL DEPENDS "${GAKPPC_DISSECTOR}")
install(FILES "${GAKPPC_DISSECTOR}" DESTINATION "${CMAKE_INSTALL_LIBDIR}/wireshark/plugins")
