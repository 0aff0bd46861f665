# Configures and builds a preset. Sourced after prerequisites.sh, with the project's folder in $top.

configure() {  # PRESET [CMAKE-ARGUMENT...]
    local launcher=() log
    if command -v ccache >/dev/null; then
        launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    fi
    mkdir -p "$top/build"
    log="$top/build/configure-$1.log"
    if ! (cd "$top" && cmake --preset "$1" "${launcher[@]}" "${@:2}") </dev/null >"$log" 2>&1; then
        cat "$log" >&2
        die "The configuration failed; the whole of it is above."
    fi
}

build() {  # PRESET [TARGET...]: silent when nothing is to do; a failure shows the compiler's words
    local preset=$1 log="$top/build/build-$1.log" begin=$SECONDS
    shift
    if ninja -C "$top/build/$preset" -n "$@" </dev/null 2>/dev/null | grep -q 'no work to do'; then
        return 0
    fi
    say "Building the $preset preset (the first time this takes minutes) ..."
    if [ -t 2 ]; then
        ninja -C "$top/build/$preset" "$@" </dev/null >&2 || die "The build failed; see the lines above."
    elif ! ninja -C "$top/build/$preset" "$@" </dev/null >"$log" 2>&1; then
        grep -v '^\[[0-9]*/[0-9]*\] ' "$log" | head -n 100 >&2
        die "The build failed; the whole of it is in $log."
    fi
    say "Built in $((SECONDS - begin)) s."
}
