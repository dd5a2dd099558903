#!/bin/sh
# Installs what is missing, builds and passes all tests. From any folder, as root or with sudo.
#
#   tools/test.sh                everything: formatting, then every test in the presets dev, asan and tsan
#   tools/test.sh dev            one preset only (dev, release, asan or tsan)
set -eu

top=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd)
cd "$top"
presets=${*:-asan tsan dev}
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

for preset in $presets; do
    say "Preset $preset: build"
    cmake --preset "$preset" $launcher >"/tmp/keyward-configure-$preset.log" || {
        cat "/tmp/keyward-configure-$preset.log"
        exit 1
    }
    cmake --build --preset "$preset" -j "$jobs"
    say "Preset $preset: tests"
    # The whole-process tests run the daemon as root in a mount namespace of their own, and mostly wait. A time-out
    # that a busy machine exceeds is tried once more; the output names what was repeated.
    as_root ctest --preset "$preset" -j "$((2 * jobs))" --output-on-failure \
        --repeat until-pass:2
done
