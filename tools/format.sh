#!/bin/sh
# clang-format over the tree: in place, or with --check only told.
set -eu

top=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd)
cd "$top"
files=$(find daemon service config server stores x509 cnf network callbacks support tests testsupport bench \
    fuzz tools/keywardctl examples packaging -name '*.cpp' -o -name '*.h' | sort)
if [ "${1:-}" = --check ]; then
    # shellcheck disable=SC2086  # one word a file
    clang-format --dry-run --Werror $files
else
    # shellcheck disable=SC2086
    clang-format -i $files
fi
