# Describes the types as the plugin registers them, in MADE, and compares that with FILE; with RENEW it writes FILE.
#     cmake -DDUMP=<qmlplugindump> -DIMPORTS=<import path> -DFILE=<qmltypes> -DMADE=<file> -DPRELOAD=<library>
#         [-DRENEW=ON] -P qmltypes.cmake
if(NOT DUMP)
    message(FATAL_ERROR "qmlplugindump is missing; on Debian the package qtdeclarative5-dev-tools has it")
endif()

# No type is made: that would want a daemon. The path is a relative one because it is written into the description.
execute_process(
    COMMAND ${CMAKE_COMMAND} -E env --unset=QML2_IMPORT_PATH QT_QPA_PLATFORM=minimal "LD_PRELOAD=${PRELOAD}"
        ASAN_OPTIONS=detect_leaks=0
        ${DUMP} -noinstantiate -nonrelocatable -noforceqtquick Vantora.Auth 1.0 .
    WORKING_DIRECTORY ${IMPORTS}
    RESULT_VARIABLE status
    OUTPUT_VARIABLE types
    ERROR_VARIABLE errors
)
if(NOT status EQUAL 0 OR types STREQUAL "")
    message(FATAL_ERROR "${DUMP}: ${status}\n${errors}")
endif()

if(RENEW)
    file(WRITE ${FILE} "${types}")
    return()
endif()
file(WRITE ${MADE} "${types}")
execute_process(COMMAND diff -u ${FILE} ${MADE} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "The plugin has other types than ${FILE} says; "
        "renew it with: cmake --build <build directory> --target qmltypes")
endif()
