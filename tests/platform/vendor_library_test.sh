#!/bin/sh
# With a box's own device library gwad-announce announces no port to nobody, but says why; the DLNA status,
# which gwad itself takes, still goes out.
#
#   vendor_library_test.sh SOURCE_FOLDER COMPILER
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# says TEXT ARGUMENT...
says() {
    text=$1
    shift
    if "$work/build/gwad-announce" "$@" >"$work/out" 2>&1 || ! grep -q "$text" "$work/out"; then
        echo "FAILED: gwad-announce $* does not end with '$text': $(cat "$work/out")" >&2
        exit 1
    fi
}

{
    cmake -S "$1" -B "$work/build" -DCMAKE_CXX_COMPILER="$2" -DBUILD_TESTING=OFF \
        -DGWAD_DEVID_LIBRARY="$work/libvendor.a" -DGWAD_DEVID_INCLUDE="$work" &&
        cmake --build "$work/build" --target gwad-announce
} >"$work/out" 2>&1 || {
    cat "$work/out" >&2
    exit 1
}
says "does not fit" --port-socket "$work/sock" http 80
says "$work/sock: No such file" --dlna-socket "$work/sock" dlna 1
