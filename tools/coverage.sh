#!/bin/sh
# Tells which lines of the daemon's ten folders the tests reach, and lists those they do not. Ends with 1 below 95 %,
# or when a test failed.
#
#   tools/coverage.sh            the report, in build/coverage/report.txt
set -eu

top=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd)
cd "$top"
"$top/tools/setup.sh" build test analysis

cmake --preset coverage >/tmp/keyward-configure-coverage.log || {
    cat /tmp/keyward-configure-coverage.log
    exit 1
}
cmake --build --preset coverage -j "$(nproc)"
find build/coverage -name '*.gcda' -delete
# The daemon writes its counts as its own user, into files that the tests before it have made.
umask 0
status=0
run_tests() {
    KWTEST_COVERAGE=$top/build/coverage ctest --test-dir build/coverage "$@" -j "$((2 * $(nproc)))" \
        --output-on-failure --repeat until-pass:2 >build/coverage/tests.log || {
        tail -n 60 build/coverage/tests.log
        status=1
    }
}
run_tests -LE 'process|docs|faults'
chmod -R a+rwX build/coverage
run_tests -L 'process|faults'

set --
for room in $(cat cmake/rooms.txt); do
    set -- "$@" --filter "$room/"
done
/usr/bin/gcovr --root . "$@" --exclude-throw-branches --txt build/coverage/report.txt --fail-under-line 95 \
    build/coverage || status=1
cat build/coverage/report.txt
exit "$status"
