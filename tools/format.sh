#!/bin/sh
# clang-format over the tree: in place, or with --check only told.
set -eu

top=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd)
cd "$top"
# shellcheck disable=SC2046  # one word a room
files=$(find $(cat cmake/rooms.txt) ctl tests testsupport bench fuzz examples packaging -name '*.cpp' -o -name '*.h' |
    sort)
if [ "${1:-}" = --check ]; then
    # shellcheck disable=SC2086  # one word a file
    clang-format --dry-run --Werror $files
else
    # shellcheck disable=SC2086
    clang-format -i $files
fi
