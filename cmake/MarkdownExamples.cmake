# Takes the examples out of the documentation, for the tests that run them as they stand.

# take_example(<variable> <language> <file>): writes the next example of the language in the variable's text into the
# file, and leaves in the variable what follows it: nothing where there was none.
function(take_example variable language file)
    set(fence "\n```${language}\n")
    string(FIND "${${variable}}" "${fence}" begin)
    if(begin LESS 0)
        set(${variable} "" PARENT_SCOPE)
        return()
    endif()
    string(LENGTH "${fence}" length)
    math(EXPR begin "${begin} + ${length}")
    string(SUBSTRING "${${variable}}" ${begin} -1 rest)
    string(FIND "${rest}" "\n```" end)
    string(SUBSTRING "${rest}" 0 ${end} example)
    file(CONFIGURE OUTPUT ${file} CONTENT "${example}\n" @ONLY NEWLINE_STYLE UNIX)
    string(SUBSTRING "${rest}" ${end} -1 rest)
    set(${variable} "${rest}" PARENT_SCOPE)
endfunction()
