find_program(BATS bats)

# bats_tests(<file> TARGETS <program>… [COMMAND <command>…])
#
# Makes a test of each @test of a file, called after the file and the case. The programs are found by their names; a
# COMMAND put in front of bats makes the world that the cases need.
function(bats_tests file)
    cmake_parse_arguments(BATS_TESTS "" "" "TARGETS;COMMAND" ${ARGN})
    get_filename_component(path ${file} ABSOLUTE)
    get_filename_component(group ${file} NAME_WE)
    if(NOT BATS)
        message(STATUS "The tests of ${file} are left out: bats is missing")
        return()
    endif()
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${path})
    set(directories ${BATS_TESTS_TARGETS})
    list(TRANSFORM directories REPLACE "(.+)" "$<TARGET_FILE_DIR:\\1>")
    list(JOIN directories ":" directories)

    file(STRINGS ${path} lines REGEX "^[ \t]*@test")
    foreach(line IN LISTS lines)
        # bats takes the name for a regular expression.
        if(NOT line MATCHES "^@test \"([A-Za-z0-9 ,'-]+)\" {$")
            message(FATAL_ERROR "${file}: name a case by letters, digits, spaces, commas, apostrophes and hyphens: ${line}")
        endif()
        set(case "${CMAKE_MATCH_1}")
        string(MAKE_C_IDENTIFIER "${group} ${case}" name)
        add_test(NAME ${name} COMMAND ${BATS_TESTS_COMMAND} ${BATS} --filter "^${case}$" ${path})
        set_tests_properties(${name} PROPERTIES
            ENVIRONMENT "PATH=${directories}:$ENV{PATH}"
            # Otherwise bats is content when it finds no such case.
            FAIL_REGULAR_EXPRESSION "^1\\.\\.0"
            SKIP_REGULAR_EXPRESSION "^1\\.\\.1\nok 1 [^\n]* # skip")
    endforeach()
endfunction()
