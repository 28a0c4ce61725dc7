# shellcheck shell=bash disable=SC2034
# The Debian packages that the project needs, and how demo and check get them. To be sourced by bash.

BUILD_PACKAGES=(g++ cmake ninja-build pkgconf qtbase5-dev libdbus-1-dev)
STANDIN_PACKAGES=(libglib2.0-dev libjson-glib-dev dbus-daemon util-linux mount)
SCREEN_PACKAGES=(qtdeclarative5-dev qml-module-qtqml-models2 qml-module-qtquick2 qml-module-qtquick-window2
    qml-module-qtquick-layouts qml-module-qtquick-controls2 fonts-dejavu-core)
TEST_PACKAGES=("${SCREEN_PACKAGES[@]}" qml-module-qttest qtdeclarative5-dev-tools qml bats zsh)
VALGRIND_PACKAGES=(valgrind)
BENCHMARK_PACKAGES=(libsystemd-dev)
LINT_PACKAGES=(clang clang-format-14 clang-tidy-14 clazy shellcheck)
ABI_PACKAGES=(abigail-tools binutils)
COVERAGE_PACKAGES=(gcovr)
FUZZ_PACKAGES=(clang-14 libclang-rt-14-dev)

# Installs what is missing of the packages named; where that takes rights that one has not, says what to do.
need_packages()
{
    # Elsewhere than on Debian the packages have other names; CMake says what it misses.
    command -v dpkg-query >/dev/null || return 0
    local package missing=()
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "These packages are missing: ${missing[*]}"
        echo "Install them with: apt-get update && apt-get install -y --no-install-recommends ${missing[*]}"
        exit 2
    fi >&2
    echo "Installing ${missing[*]}"
    apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
}

# For a build directory that does not exist yet.
export CMAKE_GENERATOR=${CMAKE_GENERATOR:-Ninja}
