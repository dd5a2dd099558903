#!/bin/sh
# clang-tidy over the daemon's own sources, with the compile commands of the dev preset.
set -eu

top=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd)
cd "$top"
[ -f build/dev/compile_commands.json ] || cmake --preset dev >/dev/null
files=${*:-$(find daemon service config server stores x509 cnf network callbacks support -name '*.cpp' | sort)}
# shellcheck disable=SC2086  # one word a file
printf '%s\n' $files | xargs -P "$(nproc)" -n 4 clang-tidy --quiet -p build/dev
