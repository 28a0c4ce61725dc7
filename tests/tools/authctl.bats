# Tests authctl against the stand-in, in a world of its own for each case.

load tools.sh

# authctl ends so, prints what matches PATTERN, and no secret.
status() # STATUS PATTERN COMMAND…
{
    ends_with "$@"
    # Nobody's user id has as many digits as a token that has leaked, and how a token begins may look like a code.
    local told
    told=$(sed -E 's/429496729[56]/nobody/g; s/bytes, [0-9a-f]{4}…|"begins":"[0-9a-f]{4}"//g' <<<"$output")
    ! [[ $told =~ 1234|geheim|[0-9a-f]{9} ]] || fail "${*:3}" "  printed a secret: $output"
}

# Rows of one case: a command line, and what authctl says of it.
refused() # [OPTION…] <<<ROWS
{
    local line pattern # shellcheck disable=SC2034
    while IFS='|' read -r line pattern; do
        eval "status 2 \"\$pattern\" authctl $line </dev/null"
    done
}

@test "a command line that is wrong is refused" {
    refused <<'END'
|no command
bogus|no such command: "bogus"
authenticate login|wants --factor
authenticate login --factor code --data geheim|everybody can see
authenticate login geheim --factor code|never from the command line
unlock geheim --factor code|never from the command line
state extra|too many arguments for state \(see
set-state open|no such state: "open"
state --timeout soon|wants a number of seconds, more than 0 and at most 1000000 \(see
state --timeout 0|wants a number of seconds, more than 0 and at most 1000000 \(see
state --timeout -1|wants a number of seconds, more than 0 and at most 1000000 \(see
state --timeout 1e9|wants a number of seconds, more than 0 and at most 1000000 \(see
state --timeout nan|wants a number of seconds, more than 0 and at most 1000000 \(see
lock --factor '' --data -|--factor wants a factor's name
lock --factor=|--factor wants a factor's name
user 1000 set is-user-settable on --factor '' --data -|--factor wants a factor's name
user 1000 set is-user-settable on --factor=|--factor wants a factor's name
authenticate login --factor '' --data -|--factor wants a factor's name
authenticate login --factor=|--factor wants a factor's name
lock --token|in a session
drop|a command of a session
options|the commands of options are: get \(see
options get|more arguments
user 1000 dance|the commands of user are: show, set, last-login
user 1000 show --user 1001|does not take --user
factors --factor code|does not authenticate
factors toggle code --token|works only in a session
factors toggle code|wants an authentication: --factor \(see
user 1000 set is-user-settable on|wants an authentication
unlock-factors toggle code|wants an authentication
method code set length:u=5|wants an authentication
method code action reset|wants an authentication
END
}
