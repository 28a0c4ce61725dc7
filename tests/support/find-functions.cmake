# Asks a program of Qt Test for its functions, or for these with each row of their data, and writes a test for each.

get_filename_component(name ${PROGRAM} NAME)
# Not said here, as only the tests look at memory.
set(ENV{ASAN_OPTIONS} detect_leaks=0)
execute_process(COMMAND ${PROGRAM} ${LIST} OUTPUT_VARIABLE said COMMAND_ERROR_IS_FATAL ANY)
# "function()", or "class function" and "class function row".
string(REGEX REPLACE "\\(\\)" "" said "${said}")
string(REGEX REPLACE "(^|\n)[A-Za-z]+ ([A-Za-z]+)" "\\1\\2" said "${said}")
string(REGEX MATCHALL "[^\n]+" functions "${said}")
if(NOT functions)
    message(FATAL_ERROR "${name} has no functions")
endif()

set(tests "")
foreach(function ${functions})
    string(REPLACE " " "_" test "${name}_${function}")
    # The first blank parts a function from its row.
    string(REGEX REPLACE "^([^ ]+) (.+)$" "\\1:\\2" function "${function}")
    set(command "")
    foreach(word ${WORLD} ${PROGRAM} -maxwarnings 0 ${function})
        string(APPEND command " [==[${word}]==]")
    endforeach()
    set(cost "")
    if(LONG AND function MATCHES "^(${LONG})$")
        set(cost 1000)
    endif()
    set(label "")
    if(MEMCHECK AND function MATCHES "^(${MEMCHECK})$")
        set(label memcheck)
    elseif(NOT NIGHTLY OR function MATCHES "^(${NIGHTLY})$")
        set(label memcheck-nightly)
    endif()
    string(APPEND tests "add_test([==[${test}]==]${command})
set_tests_properties([==[${test}]==] PROPERTIES COST \"${cost}\" LABELS \"${label}\" ENVIRONMENT
    [==[QTEST_DISABLE_STACK_DUMP=1;MALLOC_PERTURB_=165;${ENVIRONMENT}]==])
")
endforeach()
file(WRITE ${name}.cmake "${tests}")
