# Compiler and linker settings of this project's own targets. Nothing here reaches the programs that link the library.

if(NOT GAKPPC_SANITIZE MATCHES "^(address|thread)?$")
    message(FATAL_ERROR "GAKPPC_SANITIZE is \"${GAKPPC_SANITIZE}\"; it must be empty, address or thread")
endif()

# What every compiled target gets, generated code included: the language and the sanitizers.
function(gakppc_base_options target)
    target_compile_features(${target} PRIVATE cxx_std_17)
    set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
    if(GAKPPC_SANITIZE STREQUAL "address")
        set(flags -fsanitize=address,undefined)
        target_compile_options(${target} PRIVATE ${flags} -fno-sanitize-recover=all -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE ${flags})
    elseif(GAKPPC_SANITIZE STREQUAL "thread")
        target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE -fsanitize=thread)
    endif()
endfunction()

# What hand-written code gets: warnings.
function(gakppc_own_code target)
    gakppc_base_options(${target})
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow
                           $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
                           $<$<BOOL:${GAKPPC_WERROR}>:-Werror>)
endfunction()

# What code that ships gets besides: protection against the consequences of memory errors. Fortification needs an
# optimising build and would hide calls from the sanitizers.
function(gakppc_hardened target)
    target_compile_options(${target} PRIVATE -fstack-protector-strong)
    if(NOT GAKPPC_SANITIZE)
        target_compile_options(${target} PRIVATE
                               $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
                               $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
    endif()
    target_link_options(${target} PRIVATE LINKER:-z,relro,-z,now,-z,noexecstack)
    if(NOT GAKPPC_SANITIZE)
        # A sanitizer's run-time functions come from the program that loads the object.
        target_link_options(${target} PRIVATE LINKER:-z,defs)
    endif()
endfunction()
