# The lines of the documentation that show how to mend what breaks a rule, as numbers for the program: CURE_<RULE>.
BEGIN { print "#pragma once" >output }
/^#### [a-z-]+$/ {
    name = toupper($2)
    gsub("-", "_", name)
}
# The cure is the first example below the rule's heading.
/^```[a-z]+$/ && name {
    print "#define CURE_" name " " NR + 1 >output
    name = ""
}
