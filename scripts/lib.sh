# Shared by run, test, bench and .ci/run; to be sourced from the top of the tree.

# Components that others may write are refused by the component runtime, so none is built that way.
umask 022

# Progress goes to standard error: standard output belongs to the program or the result.
say() { printf '==> %s\n' "$*" >&2; }
die() {
    printf '%s\n' "$1" >&2
    exit "${2:-1}"
}

# build PRESET ON|OFF [TARGET...]: configures when needed, with or without tests, and builds.
build() {
    local preset=$1 tests=$2 log=build/$1.log cache=build/$1/CMakeCache.txt
    shift 2
    mkdir -p build
    if [ ! -f "$cache" ] || { [ "$tests" = ON ] && ! grep -q '^OSAL_TESTS:BOOL=ON' "$cache"; }; then
        say "configuring $preset"
        cmake --preset "$preset" -DOSAL_TESTS="$tests" >"$log" 2>&1 ||
            { cat "$log" >&2; die "configuring $preset failed"; }
    fi
    ninja -C "build/$preset" -n "$@" 2>/dev/null | grep -q 'no work to do' ||
        say "building $preset (progress in $log)"
    cmake --build "build/$preset" ${1:+--target "$@"} >"$log" 2>&1 ||
        { cat "$log" >&2; die "building $preset failed"; }
}
