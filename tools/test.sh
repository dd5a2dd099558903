#!/bin/sh
# Installs what is missing, builds and passes all tests. From any folder, as root or with sudo.
#
#   tools/test.sh                everything: formatting, fuzzing for 20 seconds a target, the unit tests on 32-bit ARM
#                                under emulation, then every test in the presets asan, tsan and dev
#   tools/test.sh dev            one stage only (fuzz, armhf, asan, tsan, dev or release)
set -eu

top=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd)
cd "$top"
stages=${*:-fuzz armhf asan tsan dev}
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

launcher=
if command -v ccache >/dev/null 2>&1; then
    launcher=-DCMAKE_CXX_COMPILER_LAUNCHER=ccache
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

for stage in $stages; do
    case $stage in
        fuzz | armhf)
            say "Stage $stage"
            "$top/tools/$stage.sh"
            ;;
        *) run_preset "$stage" ;;
    esac
done
