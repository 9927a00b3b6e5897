# gakppc_loader_knows(RESULT FOLDER): whether the dynamic loader looks for libraries in FOLDER by itself: without a
# RUNPATH, and without ldconfig.
function(gakppc_loader_knows result folder)
    get_filename_component(folder "${folder}" ABSOLUTE)
    if(folder MATCHES "^(/usr)?/lib(32|64|x32)?(/[^/]+-linux-[^/]+)?$")
        set(${result} ON PARENT_SCOPE)
    else()
        set(${result} OFF PARENT_SCOPE)
    endif()
endfunction()
