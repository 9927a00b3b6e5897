# Whether the library is built with static tracepoints (GAKPPC_TRACEPOINTS_ARE_BUILT), which need a header at build time
# and nothing at run time.

include(CheckIncludeFileCXX)

set(GAKPPC_TRACEPOINTS_ARE_BUILT OFF)
if(GAKPPC_TRACEPOINTS STREQUAL "AUTO" OR GAKPPC_TRACEPOINTS)
    if(NOT GAKPPC_HAVE_SYS_SDT_H)
        unset(GAKPPC_HAVE_SYS_SDT_H CACHE)  # it may have been installed meanwhile
    endif()
    # The compiler's answer: the header is in a folder of the processor that is built for.
    set(CMAKE_REQUIRED_QUIET ON)
    check_include_file_cxx(sys/sdt.h GAKPPC_HAVE_SYS_SDT_H)
    unset(CMAKE_REQUIRED_QUIET)
    set(missing_text "sys/sdt.h is missing (Debian: systemtap-sdt-dev)")

    if(GAKPPC_HAVE_SYS_SDT_H)
        set(GAKPPC_TRACEPOINTS_ARE_BUILT ON)
        message(STATUS "Tracepoints: in the library")
    elseif(GAKPPC_TRACEPOINTS STREQUAL "AUTO")
        message(STATUS "Tracepoints: none, because ${missing_text}")
    else()
        message(FATAL_ERROR "GAKPPC_TRACEPOINTS is ${GAKPPC_TRACEPOINTS}, but ${missing_text}")
    endif()
endif()
