# Takes the examples out of the documentation, for the tests that run them as they stand.

# What is built from the file is not built anew where nothing has changed.
function(write_if_different file text)
    file(WRITE ${file}.new "${text}")
    configure_file(${file}.new ${file} COPYONLY)
endfunction()

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
    write_if_different(${file} "${example}\n")
    string(SUBSTRING "${rest}" ${end} -1 rest)
    set(${variable} "${rest}" PARENT_SCOPE)
endfunction()
