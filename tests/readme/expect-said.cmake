# Runs COMMAND; it must end with status 0 and have said "welcome", once.
execute_process(COMMAND ${COMMAND} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
string(REGEX MATCHALL "welcome" said "${output}")
if(NOT status EQUAL 0 OR NOT said STREQUAL "welcome")
    message(FATAL_ERROR "status ${status}, output:\n${output}")
endif()
