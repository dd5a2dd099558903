#!/bin/sh
# clang-tidy and cppcheck over the daemon's own sources and keywardctl's, with the compile commands of the dev preset.
#
#   tools/tidy.sh                  everything
#   tools/tidy.sh FILE.cpp ...     clang-tidy on these files only
set -eu

top=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd)
cd "$top"
[ $# -gt 0 ] || "$top/tools/setup.sh" build test analysis
# A folder of its own: clang would take what gcc has precompiled for its own.
cmake --preset dev -B build/tidy -DKEYWARD_PRECOMPILE=OFF >/dev/null
rooms="$(cat cmake/rooms.txt) ctl"
# shellcheck disable=SC2086  # one word a folder
files=${*:-$(find $rooms fuzz -name '*.cpp' | sort)}
# shellcheck disable=SC2086  # one word a file
printf '%s\n' $files | xargs -P "$(nproc)" -n 4 clang-tidy --quiet -p build/tidy

if [ $# -eq 0 ]; then
    # Exceptions stand in the code, each with its reason.
    # shellcheck disable=SC2086
    cppcheck --std=c++17 --enable=warning,performance,portability --inline-suppr --quiet --error-exitcode=1 \
        -I . -j "$(nproc)" $rooms
fi
