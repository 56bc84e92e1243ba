# Sourced by the package tests. host_check ROOT SOURCE_DIR WORK builds
# examples/host against the libolvane-core installed under ROOT with
# find_package and with pkg-config, compiles every installed
# header, and indexes a small tree with both hosts and the installed
# olvane-indexer. $HOST_FLAGS are added to every compile and link (the
# sanitizers of the build under test). Exits non-zero on the first fault.

HOST_FLAGS=${HOST_FLAGS:-}

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

host_check() {
    local root=$1 src=$2 work=$3 pc libdir
    pc=$(find "$root" -name olvane-core.pc) && [ -n "$pc" ] || fail "no olvane-core.pc under $root"
    libdir=$(dirname "$(dirname "$pc")")
    export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir
    # The SONAME carries the major version, so the hosts need libolvane-core.so.0.
    readelf -d "$libdir/libolvane-core.so" | grep -q 'SONAME.*libolvane-core\.so\.0\]' ||
        fail "libolvane-core has no versioned SONAME"

    cmake -S "$src/examples/host" -B "$work/host-cmake" -DCMAKE_PREFIX_PATH="$root" \
        -DCMAKE_CXX_FLAGS="$HOST_FLAGS" >"$work/cmake.log" 2>&1 ||
        fail "find_package(OlvaneCore): $(cat "$work/cmake.log")"
    cmake --build "$work/host-cmake" >"$work/build.log" 2>&1 ||
        fail "host built with find_package: $(cat "$work/build.log")"
    # shellcheck disable=SC2046,SC2086
    c++ -std=c++17 -fPIC $HOST_FLAGS "$src/examples/host/main.cpp" -o "$work/host-pc" \
        $(pkg-config --cflags --libs olvane-core) || fail "host built with pkg-config"

    # Every installed header compiles, so none includes one left uninstalled.
    (cd "$root/include/olvane" && find . -name '*.h' | sed 's|^\./\(.*\)|#include "\1"|') \
        >"$work/all-headers.cpp"
    # shellcheck disable=SC2046
    c++ -std=c++17 -fPIC -fsyntax-only "$work/all-headers.cpp" \
        $(pkg-config --cflags olvane-core mtp-utils olvane-codingdata) ||
        fail "installed headers do not compile on their own"

    local tree=$work/usb
    mkdir -p "$tree/Music"
    cp "$src"/tests/data/gears-*.mp3 "$tree/Music/"
    export OLVANE_DB_DIR=$work/db
    local out
    out=$("$work/host-cmake/olvane-host" "$tree" usb-host) || fail "host exits $?: $out"
    grep -qx "indexingFinished $tree" <<<"$out" || fail "no indexingFinished: $out"
    out=$("$work/host-pc" "$tree" usb-host) || fail "pkg-config host exits $?: $out"
    grep -qx "databaseExists usb-host $tree" <<<"$out" || fail "second run finds no database: $out"

    out=$("$root/bin/olvane-indexer" show usb-host) || fail "olvane-indexer show: $out"
    grep -qx "songs 3" <<<"$out" || fail "3 songs expected: $out"
    grep -qx "status $tree OK" <<<"$out" || fail "status OK expected: $out"
}
