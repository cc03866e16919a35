# shellcheck shell=bash
# Configuring and building. Sourced by the scripts, which have changed to the repository's root.

# A compiler cache is used where there is one; nothing needs it.
use_compiler_cache() {
    if ! command -v ccache >/dev/null; then return 0; fi
    export CMAKE_C_COMPILER_LAUNCHER="${CMAKE_C_COMPILER_LAUNCHER:-ccache}"
    export CMAKE_CXX_COMPILER_LAUNCHER="${CMAKE_CXX_COMPILER_LAUNCHER:-ccache}"
    # Without these the precompiled header would make every compilation a miss.
    export CCACHE_SLOPPINESS="${CCACHE_SLOPPINESS:-pch_defines,time_macros}"
}

# build_preset PRESET [TARGET...]: configures build/PRESET and builds the targets, or everything.
build_preset() {
    local preset="$1"
    shift
    local targets=() output
    if (($# > 0)); then targets=(--target "$@"); fi
    use_compiler_cache
    # What a configuration finds is of interest only when it fails.
    if ! output="$(cmake --preset "$preset" 2>&1)"; then
        echo "$output" >&2
        return 1
    fi
    cmake --build --preset "$preset" --parallel "$(nproc)" "${targets[@]}"
}
