# Compiler and linker settings of this project's own targets. Nothing here reaches the programs that link the library.

if(NOT GAKPPC_SANITIZE MATCHES "^(address|thread)?$")
    message(FATAL_ERROR "GAKPPC_SANITIZE is \"${GAKPPC_SANITIZE}\"; it must be empty, address or thread")
endif()

if(GAKPPC_COVERAGE AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "GAKPPC_COVERAGE needs clang")
endif()

if(GAKPPC_FUZZ AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "GAKPPC_FUZZ needs clang")
endif()

# What every compiled target gets, generated code included: the language and the sanitizers.
function(gakppc_base_options target)
    target_compile_features(${target} PRIVATE cxx_std_17)
    set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
    if(GAKPPC_SANITIZE AND NOT GAKPPC_FUZZ)
        # More optimisation of instrumented code doubles the time of building it and saves little of running it; reports
        # need no more than line numbers.
        target_compile_options(${target} PRIVATE $<$<NOT:$<CONFIG:Debug>>:-O1> $<$<NOT:$<CONFIG:Debug>>:-g1>)
    endif()
    if(GAKPPC_SANITIZE STREQUAL "address")
        set(flags -fsanitize=address,undefined)
        target_compile_options(${target} PRIVATE ${flags} -fno-sanitize-recover=all -fno-omit-frame-pointer)
        # GCC takes variables of instrumented templates (std::regex) for uninitialized: its bug 105562.
        target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
        target_link_options(${target} PRIVATE ${flags})
    elseif(GAKPPC_SANITIZE STREQUAL "thread")
        target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE -fsanitize=thread)
    endif()
endfunction()

# What hand-written code gets: warnings. Files are compiled one by one, also with CMAKE_UNITY_BUILD: those of the library
# have names for the same thing in common, such as the path in their log lines.
function(gakppc_own_code target)
    gakppc_base_options(${target})
    set_target_properties(${target} PROPERTIES UNITY_BUILD OFF)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow
                           $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
                           $<$<BOOL:${GAKPPC_WERROR}>:-Werror>)
endfunction()

# What code that ships also gets: protection against the consequences of memory errors. Fortification needs an
# optimising build and would hide calls from the sanitizers.
function(gakppc_hardened target)
    target_compile_options(${target} PRIVATE -fstack-protector-strong)
    if(GAKPPC_FUZZ)
        # What ships is what guides the fuzzer.
        target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link
                               "-fsanitize-coverage-ignorelist=${PROJECT_SOURCE_DIR}/tests/fuzz/not-counted.txt")
    endif()
    if(NOT GAKPPC_SANITIZE)
        target_compile_options(${target} PRIVATE
                               $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
                               $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
    endif()
    target_link_options(${target} PRIVATE LINKER:-z,relro,-z,now,-z,noexecstack)
    # All functions are bound at load, so calls need no stubs for binding them later.
    target_compile_options(${target} PRIVATE -fno-plt)
    if(NOT GAKPPC_SANITIZE)
        # A sanitizer's run-time functions come from the program that loads the object.
        target_link_options(${target} PRIVATE LINKER:-z,defs)
    endif()
endfunction()

# What code whose tests are measured gets. The counters live in one file for each object, in <build>/profiles, which all
# processes map while they run: what a process did counts also when it was killed or left without its exit handlers.
function(gakppc_measured target)
    if(GAKPPC_COVERAGE)
        set(profile "${PROJECT_BINARY_DIR}/profiles/%m%c.profraw")
        target_compile_options(${target} PRIVATE "-fprofile-instr-generate=${profile}" -fcoverage-mapping
                               -fprofile-update=atomic "SHELL:-mllvm -runtime-counter-relocation")
        target_link_options(${target} PRIVATE "-fprofile-instr-generate=${profile}")
    endif()
endfunction()
