# Manual pages, made from what --help prints, so that nothing is said twice.

find_program(GAKPPC_HELP2MAN help2man)
mark_as_advanced(GAKPPC_HELP2MAN)
if(NOT GAKPPC_HELP2MAN)
    message(STATUS "help2man is missing: the tools get no manual pages")
    return()
endif()

set(GAKPPC_MAN_DIR "${CMAKE_CURRENT_BINARY_DIR}/man1")
file(MAKE_DIRECTORY "${GAKPPC_MAN_DIR}")
set(pages "")

# gakppc_man_page(PAGE PROGRAM SUMMARY [VERB])
function(gakppc_man_page page program summary)
    set(output "${GAKPPC_MAN_DIR}/${page}.1")
    # A cross build cannot run its own programs without help.
    string(JOIN " " run ${CMAKE_CROSSCOMPILING_EMULATOR} "$<TARGET_FILE:${program}>")
    add_custom_command(
        OUTPUT "${output}"
        COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C "${GAKPPC_HELP2MAN}" --no-info --no-discard-stderr
                "--name=${summary}" "--section=1" "--manual=libgakppc tools"
                "--source=libgakppc ${PROJECT_VERSION}"
                "--version-string=${page} (libgakppc) ${PROJECT_VERSION}"
                "--help-option=${ARGN} --help" "--output=${output}"
                "${run}"
        DEPENDS ${program}
        COMMENT "Manual page ${page}(1)"
        VERBATIM)
    set(pages "${pages};${output}" PARENT_SCOPE)
endfunction()

gakppc_man_page(gakppcd gakppcd "daemon for worker processes, to watch and to drive by hand")
gakppc_man_page(gakppctl gakppctl "works on control messages between a daemon and its workers")
gakppc_man_page(gakppctl-worker gakppctl "be a worker process" worker)
gakppc_man_page(gakppctl-send gakppctl "send any control message by hand" send)
gakppc_man_page(gakppctl-tap gakppctl "show the control messages that cross the daemon's socket" tap)
gakppc_man_page(gakppctl-watch gakppctl "show the control messages of a process that runs" watch)
gakppc_man_page(gakppctl-replay gakppctl "send recorded control messages once more" replay)
gakppc_man_page(gakppctl-decode gakppctl "show recorded control messages" decode)
gakppc_man_page(gakppctl-status gakppctl "explain status numbers" status)
gakppc_man_page(gakppctl-list gakppctl "show who is connected to the daemon" list)
gakppc_man_page(gakppctl-doctor gakppctl "find what keeps a daemon and its workers apart" doctor)
gakppc_man_page(gakppctl-workers gakppctl "show the workers of a running gakppcd" workers)
gakppc_man_page(gakppctl-shutdown gakppctl "tell workers of a running gakppcd to shut down" shutdown)
gakppc_man_page(gakppctl-start-custom gakppctl "let a running gakppcd start a custom process" start-custom)
gakppc_man_page(gakppctl-stop gakppctl "stop a running gakppcd and its workers" stop)

add_custom_target(gakppc_man ALL DEPENDS ${pages})
install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
