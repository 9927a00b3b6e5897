# Whether the tools are built (GAKPPC_TOOLS_ARE_BUILT), which need more than the library does.

set(GAKPPC_TOOLS_ARE_BUILT OFF)
if(GAKPPC_BUILD_TOOLS STREQUAL "AUTO" OR GAKPPC_BUILD_TOOLS)
    set(missing "")
    foreach(need IN ITEMS CLI11=libcli11-dev fmt=libfmt-dev nlohmann_json=nlohmann-json3-dev
            PCAP=libpcap-dev)
        string(REGEX MATCH "^(.+)=(.+)$" need "${need}")
        set(package "${CMAKE_MATCH_1}")
        set(debian_package "${CMAKE_MATCH_2}")
        find_package(${package} QUIET)
        if(NOT ${package}_FOUND)
            list(APPEND missing "${package} (Debian: ${debian_package})")
        endif()
    endforeach()
    list(JOIN missing ", " missing_text)

    if(NOT missing)
        set(GAKPPC_TOOLS_ARE_BUILT ON)
        message(STATUS "Tools: gakppctl and gakppcd")
        include(GakppcSystemd)
    elseif(GAKPPC_BUILD_TOOLS STREQUAL "AUTO")
        message(STATUS "Tools: not built, because these packages are missing: ${missing_text}")
    else()
        message(FATAL_ERROR
                "GAKPPC_BUILD_TOOLS is ${GAKPPC_BUILD_TOOLS}, but these packages are missing: ${missing_text}")
    endif()
endif()
