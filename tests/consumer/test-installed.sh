#!/bin/sh
# Installs everything, moves it, and builds and tests a host's project with that alone: no file of the source and build
# directories is in reach.
set -eu

if [ "$1" != --alone ]; then
    # Mounts are this process' own.
    namespaces=--mount
    [ "$(id -u)" -eq 0 ] || namespaces="$namespaces --user --map-root-user"
    # shellcheck disable=SC2086
    exec unshare $namespaces -- sh "$0" --alone "$@"
fi

cmake=$2 source=$3 build=$4 host=$5 compiler=$6 libdir=$7 qmldir=$8
work=$(mktemp -d)
trap 'cd / && rm -rf "$work"' EXIT

step()
{
    echo "== $*"
    "$@"
}

DESTDIR=$work/staging "$cmake" --install "$build" --prefix /opt/auth >"$work/install.log" || {
    cat "$work/install.log"
    exit 1
}
prefix="$work/moved here"
mv "$work/staging/opt/auth" "$prefix"
if find "$work/staging" ! -type d | grep .; then
    echo "These were installed outside of the prefix"
    exit 1
fi
cp -r "$host" "$work/host"
mount -t tmpfs none "$source"
[ ! -e "$build" ] || mount -t tmpfs none "$build"

cd "$work/host"
export PATH="$prefix/bin:$PATH" LD_LIBRARY_PATH="$prefix/$libdir" QML2_IMPORT_PATH="$prefix/$qmldir"
export CMAKE_PREFIX_PATH="$prefix" PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
export QT_QPA_PLATFORM=offscreen QT_QUICK_BACKEND=software QML_DISABLE_DISK_CACHE=1 LC_ALL=C.UTF-8

step "$cmake" -S . -B build -DCMAKE_CXX_COMPILER="$compiler"
step "$cmake" --build build
step authd-standin run -- ctest --test-dir build --output-on-failure --no-tests=error
step authd-standin run --uid 1000 -- qmltestrunner -input "$work/host"

# The reference screens, where they are installed.
step "$cmake" -S "$prefix/share/doc/libauth-client/examples" -B screens -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_CXX_FLAGS=-Werror
step "$cmake" --build screens
for screen in lockscreen login settings; do
    step authd-standin run -- "screens/auth-$screen" --user 1000 --screenshot "$screen.png"
done

# pkg-config escapes the blank of the path, for a shell to read.
flags=$(pkg-config --cflags --libs auth-stand-in)
cat >lock.cpp <<'END'
#include <AuthStandIn>

int main()
{
    return AuthStandIn([](const QString &error) { qFatal("%s", qPrintable(error)); }).lock() ? 0 : 1;
}
END
step eval "$compiler -std=c++17 -fPIC lock.cpp -o with-stand-in-alone $flags"
step authd-standin run -- ./with-stand-in-alone
flags=$(pkg-config --cflags --libs auth-client)
step eval "$compiler -std=c++17 -fPIC host.cpp -o with-pkg-config $flags"
step authd-standin run -- ./with-pkg-config

# Each header by itself, and the forwarding ones.
compile()
{
    step eval "$compiler -std=c++17 -fPIC -Wall -Wextra -Wpedantic -Werror -fsyntax-only $1 $flags"
}
for header in "$prefix"/include/auth-client/*; do
    name=$(basename "$header")
    case $name in
    *.h) echo "#include <$name>" >alone.cpp && compile alone.cpp ;;
    *) echo "#include <$name>" >>forwarding.cpp && echo "static_assert(sizeof($name) > 0);" >>forwarding.cpp ;;
    esac
done
compile forwarding.cpp
