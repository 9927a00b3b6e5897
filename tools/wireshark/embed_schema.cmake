# Puts the compiled schema DESCRIPTOR into the dissector: cmake -DDESCRIPTOR= -DINPUT= -DOUTPUT= -P embed_schema.cmake

file(READ "${DESCRIPTOR}" GAKPPC_SCHEMA HEX)
configure_file("${INPUT}" "${OUTPUT}" @ONLY)
