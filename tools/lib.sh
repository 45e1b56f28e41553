# Shared by the tools: where they build, and a scratch folder that is removed at the end.
# Sourced by scripts of this folder.
# shellcheck shell=sh

root=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd -P) # the checkout

# Sets `scratch` to a new folder that is removed however the script ends.
make_scratch() {
    scratch=$(mktemp -d "${TMPDIR:-/tmp}/tellbox.XXXXXX")
    trap 'rm -rf "$scratch"' EXIT
    trap 'exit 129' HUP
    trap 'exit 130' INT
    trap 'exit 143' TERM
}

# Whether the folder exists or can be made, and everything in it can be replaced.
can_build_in() {
    mkdir -p "$1" 2>/dev/null && [ -z "$(find "$1" ! -writable -print -quit 2>&1)" ]
}

# Prints the folder to build a preset in: build/PRESET in the checkout. If that is not writable
# (somebody else's checkout, a tree that root built), a folder in the user's cache. Without a home
# directory, one in the scratch folder.
build_tree() {
    checkout=$(printf '%s' "$root" | cksum | cut -d ' ' -f 1)
    for tree in "$root/build/$1" "${XDG_CACHE_HOME:-${HOME-}/.cache}/tellbox/$checkout/$1"; do
        if can_build_in "$tree"; then
            echo "$tree"
            return
        fi
    done
    mkdir -p "$scratch/build/$1"
    echo "$scratch/build/$1"
}

# Whether the tree is configured for this checkout. CMake refuses a tree that was copied or moved
# together with its checkout.
is_configured() {
    [ -f "$1/build.ninja" ] && grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$root" "$1/CMakeCache.txt"
}

# Configures a preset in a tree: configure PRESET TREE [CMAKE-OPTION...]
configure() {
    preset=$1
    tree=$2
    shift 2
    is_configured "$tree" || set -- --fresh "$@"
    (cd "$root" && cmake --preset "$preset" -B "$tree" "$@")
}

# Compiles through ccache, if it is installed.
use_ccache() {
    command -v ccache >/dev/null || return 0
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache
    export CCACHE_SLOPPINESS="${CCACHE_SLOPPINESS-pch_defines,time_macros}" # precompiled headers
}

# Runs a command and shows its output only if it fails.
quietly() {
    "$@" >"$scratch/quiet.log" 2>&1 && return
    cat "$scratch/quiet.log" >&2
    return 1
}
