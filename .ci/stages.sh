# shellcheck shell=bash
# What run, nightly and lint have in common. To be sourced by bash, from the root of the sources.

. cmake/packages.sh

# Runs a command under a title, and says how long it took.
stage() # title command...
{
    local title=$1 begin=$SECONDS status=0
    shift
    echo "== $title"
    "$@" || status=$?
    echo "== $title: $((SECONDS - begin)) s, status $status"
    return "$status"
}

build_preset() # preset
{
    cmake --preset "$1" -DCMAKE_COMPILE_WARNING_AS_ERROR=ON && cmake --build --preset "$1" --parallel "$(nproc)"
}

# Some tests do nothing but wait, so more of them run at once than there are processors.
test_preset() # preset tests-for-each-processor option-of-ctest...
{
    local preset=$1 parallel=$(($(nproc) * $2))
    shift 2
    ctest --preset "$preset" --parallel "$parallel" --no-tests=error "$@"
}
