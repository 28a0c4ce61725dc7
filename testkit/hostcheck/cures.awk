# The lines of the documentation that show how to mend what breaks a rule, as numbers for the program: CURE_<RULE>.
BEGIN { print "#pragma once" >output }
/^#### [a-z-]+$/ {
    name = toupper($2)
    gsub("-", "_", name)
    print "#define CURE_" name " " NR >output
}
