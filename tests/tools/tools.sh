# shellcheck shell=bash
# What the tests of the tools share; their .bats files load it.

# The `QDBusConnection` of Qt 5.15 readies the system bus in a thread of its own, and leaves objects behind in a process
# that ends before that. What the programs themselves leave is found by memcheck.
export ASAN_OPTIONS=${ASAN_OPTIONS-}:detect_leaks=0

fail() # TEXT…
{
    printf '%s\n' "$@" >&2
    return 1
}

# Runs a command and leaves what it has printed in $output; it has to end with STATUS and print what matches PATTERN.
ends_with() # STATUS PATTERN COMMAND…
{
    local status=0
    output=$("${@:3}" 2>&1) || status=$?
    [[ $status -eq $1 && $output =~ $2 ]] ||
        fail "${*:3}" "  ended with status $status, expected $1; printed:" "$output" "  expected: $2"
}

# Becomes a command of another user, who may not come to where authctl was built.
as_user() # USER COMMAND…
{
    local built
    built=$(command -v authctl)
    mount -t tmpfs tmpfs /mnt
    cp -Lu "$built" "${built%/*}/../libauth-client.so.1" /mnt
    exec env PATH="/mnt:$PATH" LD_LIBRARY_PATH=/mnt setpriv --reuid "$1" --regid "$1" --clear-groups "${@:2}"
}
