#!/bin/sh
# Feeds every reader of outside bytes with whatever libFuzzer finds, under the address and undefined-behaviour
# sanitizers. Ends with 1 when an input was found that breaks one, and says where it lies.
#
#   tools/fuzz.sh                       every target for 20 seconds
#   tools/fuzz.sh 1200 record names     these targets for 20 minutes each
set -eu

top=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd)
cd "$top"
seconds=${1:-20}
[ $# -eq 0 ] || shift

"$top/tools/setup.sh" build fuzz

launcher=
if command -v ccache >/dev/null 2>&1; then
    launcher=-DCMAKE_CXX_COMPILER_LAUNCHER=ccache
fi
cmake --preset fuzz $launcher >/tmp/keyward-configure-fuzz.log || {
    cat /tmp/keyward-configure-fuzz.log
    exit 1
}
cmake --build --preset fuzz -j "$(nproc)"

targets=$*
[ -n "$targets" ] || targets=$(ls fuzz/corpus)
out=$top/build/fuzz/out
mkdir -p "$out"

# What a target found earlier is a seed of its next run; inputs that break it are kept beside it.
run_target() {
    mkdir -p "$out/$1"
    timeout "$((seconds + 120))" "build/fuzz/fuzz/fuzz_$1" "-max_total_time=$seconds" -timeout=30 -max_len=8192 \
        -rss_limit_mb=3000 -print_final_stats=1 "-artifact_prefix=$out/$1." "$out/$1" "fuzz/corpus/$1" \
        >"$out/$1.log" 2>&1
}

report() {
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$out/$1.log")
    coverage=$(sed -n 's/.*cov: \([0-9]*\).*/\1/p' "$out/$1.log" | tail -n 1)
    printf '%-14s %10s executions, %6s edges reached\n' "$1" "$executions" "$coverage"
}

# As many at once as there are processors.
broken=
set --
finish_batch() {
    for started in "$@"; do
        if wait "${started#*=}"; then
            report "${started%%=*}"
        else
            broken="$broken ${started%%=*}"
            tail -n 40 "$out/${started%%=*}.log"
        fi
    done
}
for target in $targets; do
    run_target "$target" &
    set -- "$@" "$target=$!"
    if [ $# -ge "$(nproc)" ]; then
        finish_batch "$@"
        set --
    fi
done
finish_batch "$@"

if [ -n "$broken" ]; then
    echo "Broken:$broken (the inputs: $out/<target>.crash-*, timeout-*, oom-*)"
    exit 1
fi
