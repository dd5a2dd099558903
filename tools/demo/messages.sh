# shellcheck shell=bash
# What the demonstration says; sourced.

say() {
    printf '\n== %s\n' "$*"
}

fail() {
    printf '\n*** The demonstration FAILED: %s\n' "$*" >&2
    exit 1
}

loudly() {
    local rule='******************************************************************************'
    printf '\n%s\n' "$rule" >&2
    printf '*** %s\n' "$@" >&2
    printf '%s\n' "$rule" >&2
}
