# The message classes, generated from the schema at build time into <build>/generated. Their symbols are exported, so
# they are compiled with default visibility; what leaves the library is decided by the export list.

set(GAKPPC_GENERATED_DIR "${PROJECT_BINARY_DIR}/generated")
set(GAKPPC_PROTO_DIR "${PROJECT_SOURCE_DIR}/qel/device/proto")
file(MAKE_DIRECTORY "${GAKPPC_GENERATED_DIR}")

add_custom_command(
    OUTPUT "${GAKPPC_GENERATED_DIR}/qel_message.pb.h" "${GAKPPC_GENERATED_DIR}/qel_message.pb.cc"
    COMMAND protobuf::protoc "--proto_path=${GAKPPC_PROTO_DIR}" "--cpp_out=${GAKPPC_GENERATED_DIR}" qel_message.proto
    DEPENDS "${GAKPPC_PROTO_DIR}/qel_message.proto" protobuf::protoc
    COMMENT "Generating the message classes"
    VERBATIM)

add_library(gakppc_messages OBJECT
            "${GAKPPC_GENERATED_DIR}/qel_message.pb.cc"
            "${GAKPPC_GENERATED_DIR}/qel_message.pb.h")
gakppc_base_options(gakppc_messages)
gakppc_hardened(gakppc_messages)
set_target_properties(gakppc_messages PROPERTIES POSITION_INDEPENDENT_CODE ON)
target_compile_options(gakppc_messages PRIVATE -fsemantic-interposition)
target_include_directories(gakppc_messages SYSTEM PRIVATE "${GAKPPC_GENERATED_DIR}")
target_link_libraries(gakppc_messages PRIVATE protobuf::libprotobuf)
