#!/bin/sh
# Installs what is missing, builds and passes all tests. From any folder, as root or with sudo.
#
#   tools/test.sh                formatting and every test in the preset dev: minutes
#   tools/test.sh all            before a change lands: formatting, fuzzing for 20 seconds a target, the unit tests on
#                                32-bit ARM under emulation, then every test in the presets asan, tsan and dev
#   tools/test.sh quick          after a change: the unit tests of the rooms that changed since the last commit and of
#                                those above them
#   tools/test.sh STAGE...       these only (fuzz, armhf, asan, tsan, dev, release, tidy)
set -eu

top=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd)
cd "$top"
stages=${*:-dev}
jobs=$(nproc)

"$top/tools/setup.sh" build test

say() {
    printf '\n== %s\n' "$*"
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo -E "$@"
    fi
}

say "Formatting"
"$top/tools/format.sh" --check

# Precompiled headers are cached only where their times do not count.
launcher=
if command -v ccache >/dev/null 2>&1; then
    launcher='-DCMAKE_CXX_COMPILER_LAUNCHER=env;CCACHE_SLOPPINESS=pch_defines,time_macros;ccache'
fi

run_preset() {
    say "Preset $1: build"
    cmake --preset "$1" $launcher >"/tmp/keyward-configure-$1.log" || {
        cat "/tmp/keyward-configure-$1.log"
        exit 1
    }
    cmake --build --preset "$1" -j "$jobs"
    say "Preset $1: tests"
    # The whole-process tests run the daemon as root in a mount namespace of their own, and mostly wait. A time-out
    # that a busy machine exceeds is tried once more; the output names what was repeated.
    as_root ctest --preset "$1" -j "$((2 * jobs))" --output-on-failure --repeat until-pass:2
}

# The rooms on and above the floor of the lowest one that a change touches; every one when it touches what all share.
changed_rooms() {
    # What was moved has changed where it was, too.
    changed=$(git status --porcelain --untracked-files=all | sed 's/^...//; s/ -> /\n/')
    found=
    if printf '%s\n' "$changed" | grep -qE '^(cmake/|CMake|testsupport/|tests/(CMake|plugins/|unit/CMake))'; then
        found=$(tr '\n' ' ' <cmake/rooms.txt)ctl
    fi
    [ -z "$found" ] || { echo "$found"; return; }
    for room in $(cat cmake/rooms.txt) ctl; do
        if [ -n "$found" ] || printf '%s\n' "$changed" | grep -qE "^(tests/unit/)?$room/"; then
            found="$found $room"
        fi
    done
    echo "$found"
}

run_quick() {
    git status >/dev/null # says why, where it cannot tell what has changed
    rooms=$(changed_rooms)
    if [ -z "$rooms" ]; then
        echo "No room has changed since the last commit."
        return
    fi
    # shellcheck disable=SC2086  # one word a room
    say "Unit tests of:" $rooms
    cmake --preset dev $launcher >/dev/null
    # shellcheck disable=SC2046,SC2086
    cmake --build --preset dev -j "$jobs" --target $(printf 'test_%s ' $rooms)
    names=$(printf '%s' "${rooms# }" | tr -s ' ' '|')
    as_root ctest --preset dev -j "$((2 * jobs))" --output-on-failure -R "^($names)\\."
}

case " $stages " in
    *" all "*) stages="fuzz armhf asan tsan dev $(echo " $stages " | sed 's/ all / /')" ;;
esac
for stage in $stages; do
    case $stage in
        quick) run_quick ;;
        tidy) "$top/tools/tidy.sh" ;;
        fuzz | armhf)
            say "Stage $stage"
            "$top/tools/$stage.sh"
            ;;
        *) run_preset "$stage" ;;
    esac
done
