# Every QML and JavaScript file among the sources is one to qmllint. Its further check, for unqualified names, is no
# use: it takes the roles of models, enumerators of attached types and the arguments of signals for faults.
if(NOT QMLLINT)
    message(FATAL_ERROR "qmllint is missing; on Debian the package qtdeclarative5-dev-tools has it")
endif()

file(WRITE ${SCRATCH}/good.qml "import QtQml 2.15\nQtObject {}\n")
file(WRITE ${SCRATCH}/broken.qml "import QtQml 2.15\nQtObject {\n")
execute_process(COMMAND ${QMLLINT} ${SCRATCH}/broken.qml ${SCRATCH}/good.qml RESULT_VARIABLE status ERROR_QUIET)
if(status EQUAL 0)
    message(FATAL_ERROR "${QMLLINT} finds no fault in ${SCRATCH}/broken.qml")
endif()

# Build directories, wherever they are, hold copies.
set(files "")
file(GLOB entries ${SOURCES}/*)
foreach(entry ${entries})
    if(IS_DIRECTORY ${entry} AND NOT EXISTS ${entry}/CMakeCache.txt)
        file(GLOB_RECURSE found ${entry}/*.qml ${entry}/*.js)
        list(APPEND files ${found})
    endif()
endforeach()
list(LENGTH files count)
if(count EQUAL 0)
    message(FATAL_ERROR "There are no QML files in ${SOURCES}")
endif()

execute_process(COMMAND ${QMLLINT} ${files} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "${QMLLINT}: ${status}")
endif()
message(STATUS "${count} files are clean")
