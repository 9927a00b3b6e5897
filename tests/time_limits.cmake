# Read by CTest before the tests: GAKPPC_TEST_TIME_SCALE in the environment stretches the time limit of each. CTest
# itself has no means to change limits that are set.

if(NOT "$ENV{GAKPPC_TEST_TIME_SCALE}" STREQUAL "" AND NOT COMMAND _set_tests_properties)
    if(NOT "$ENV{GAKPPC_TEST_TIME_SCALE}" MATCHES "^[1-9][0-9]*$")
        message(FATAL_ERROR
                "GAKPPC_TEST_TIME_SCALE is \"$ENV{GAKPPC_TEST_TIME_SCALE}\"; it must be a whole number, 1 or more")
    endif()

    # The command that it replaces keeps its name behind an underscore.
    function(set_tests_properties)
        set(arguments "")
        set(previous "")
        math(EXPR last "${ARGC} - 1")
        foreach(i RANGE ${last})
            set(argument "${ARGV${i}}")
            if(previous STREQUAL "TIMEOUT")
                math(EXPR argument "${argument} * $ENV{GAKPPC_TEST_TIME_SCALE}")
            endif()
            string(APPEND arguments " [==[${argument}]==]")
            set(previous "${argument}")
        endforeach()
        cmake_language(EVAL CODE "_set_tests_properties(${arguments})")
    endfunction()
endif()
