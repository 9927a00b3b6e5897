# How installed programs and libraries find the libraries that are installed with them: by a RUNPATH relative to
# themselves, so that the prefix may be anywhere and may be moved. Where the loader looks anyway there is none.

# gakppc_run_path(TARGET FILE [COMPONENT name]): FILE is where TARGET is installed, relative to the prefix. To be called
# after install(TARGETS).
function(gakppc_run_path target file)
    cmake_parse_arguments(PARSE_ARGV 2 arg "" "COMPONENT" "")
    if(NOT arg_COMPONENT)
        set(arg_COMPONENT Unspecified)
    endif()
    get_filename_component(folder "/${file}" DIRECTORY)
    file(RELATIVE_PATH to_libraries "${folder}" "/${CMAKE_INSTALL_LIBDIR}")
    string(REGEX REPLACE "/$" "" run_path "$ORIGIN/${to_libraries}")
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${run_path}")

    # The prefix is known for certain only while installing: `cmake --install --prefix` may change it.
    install(CODE "
        include(\"${PROJECT_SOURCE_DIR}/cmake/gakppcLoaderPath.cmake\")
        gakppc_loader_knows(known \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}\")
        if(known)
            file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${file}\")
        endif()" COMPONENT ${arg_COMPONENT})
endfunction()
