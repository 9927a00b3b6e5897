# Whether gakppcd tells systemd how it does (GAKPPC_SYSTEMD_IS_USED), for which it needs libsystemd.

set(GAKPPC_SYSTEMD AUTO CACHE STRING "gakppcd talks to systemd: AUTO (if libsystemd is there), ON or OFF")
set_property(CACHE GAKPPC_SYSTEMD PROPERTY STRINGS AUTO ON OFF)

set(GAKPPC_SYSTEMD_IS_USED OFF)
if(GAKPPC_SYSTEMD STREQUAL "AUTO" OR GAKPPC_SYSTEMD)
    find_path(GAKPPC_SYSTEMD_INCLUDE_DIR systemd/sd-daemon.h)
    find_library(GAKPPC_SYSTEMD_LIBRARY systemd)
    mark_as_advanced(GAKPPC_SYSTEMD_INCLUDE_DIR GAKPPC_SYSTEMD_LIBRARY)
    set(missing_text "libsystemd (Debian: libsystemd-dev) is missing")
    if(GAKPPC_SYSTEMD_INCLUDE_DIR AND GAKPPC_SYSTEMD_LIBRARY)
        set(GAKPPC_SYSTEMD_IS_USED ON)
    elseif(GAKPPC_SYSTEMD STREQUAL "AUTO")
        message(STATUS "gakppcd does not talk to systemd: ${missing_text}")
    else()
        message(FATAL_ERROR "GAKPPC_SYSTEMD is ${GAKPPC_SYSTEMD}, but ${missing_text}")
    endif()
endif()
