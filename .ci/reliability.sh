#!/usr/bin/env bash
# Reliability pass: replays the saved fuzz inputs, runs each libFuzzer target for a bounded time
# (both at once, one per core), runs the aggregator's tests on our host's capabilities under the
# sanitizers, and runs the storm and churn tests once under valgrind memcheck.
# Fails on any crash, sanitizer report, memcheck error or definite leak.
#
#   .ci/reliability.sh
#
# Environment (all optional):
#   FUZZ_SECONDS=60         time per fuzz target (they run in parallel)
#   RELEASE_BUILD=build/release  an existing non-sanitized build with the tests; built if missing
#   FUZZ_BUILD=build/fuzz   where the clang fuzz build goes
# A crash leaves its input in $FUZZ_BUILD/artifacts/; copy it to fuzz/regressions/<corpus>/ once
# fixed, where fuzz_replay_* tests replay it in every build.
set -euo pipefail
cd "$(dirname "$0")/.."

FUZZ_SECONDS=${FUZZ_SECONDS:-60}
RELEASE_BUILD=${RELEASE_BUILD:-build/release}
FUZZ_BUILD=${FUZZ_BUILD:-build/fuzz}
JOBS=${JOBS:-$(nproc)}
START=$(date +%s)

ensure_packages() {
    local missing=()
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    if ((${#missing[@]})); then
        echo "== installing: ${missing[*]}"
        local sudo=""
        [ "$(id -u)" -eq 0 ] || sudo="sudo"
        $sudo apt-get update -qq
        DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
    fi
}
ensure_packages cmake ninja-build g++ clang libclang-rt-14-dev valgrind libgtest-dev libyaml-cpp-dev \
    libcli11-dev libabsl-dev

echo "== fuzz build (clang, libFuzzer, AddressSanitizer + UndefinedBehaviorSanitizer)"
cmake -S . -B "$FUZZ_BUILD" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVELTA_BUILD_FUZZERS=ON -DVELTA_SANITIZE=ON -DVELTA_BUILD_BENCH=OFF >/dev/null
cmake --build "$FUZZ_BUILD" -j "$JOBS" --target scenario_parser_fuzzer host_ops_fuzzer aggregator_test

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:symbolize=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# Seed corpora: the bundled ones, plus every example and scenario file for the parser. libFuzzer
# adds what it finds to the work copy, never to the source tree.
rm -rf "$FUZZ_BUILD/corpus" "$FUZZ_BUILD/artifacts" "$FUZZ_BUILD/logs"
mkdir -p "$FUZZ_BUILD/corpus/scenario" "$FUZZ_BUILD/corpus/host_ops" "$FUZZ_BUILD/artifacts" "$FUZZ_BUILD/logs"
cp fuzz/corpus/scenario/* "$FUZZ_BUILD/corpus/scenario/"
cp fuzz/corpus/host_ops/* "$FUZZ_BUILD/corpus/host_ops/"
for f in examples/*.yaml tests/scenarios/*/*.yaml; do
    [ -f "$f" ] && cp "$f" "$FUZZ_BUILD/corpus/scenario/$(echo "$f" | tr / _)"
done

# Each target with the directory name of its corpus and its saved crash inputs.
TARGETS=(scenario_parser:scenario host_ops:host_ops)

echo "== replaying saved crash inputs"
for entry in "${TARGETS[@]}"; do
    name=${entry%%:*} dir=fuzz/regressions/${entry##*:}
    compgen -G "$dir/*" >/dev/null || continue
    if ! "$FUZZ_BUILD/fuzz/${name}_fuzzer" "$dir"/* >"$FUZZ_BUILD/logs/$name-regressions.log" 2>&1; then
        tail -40 "$FUZZ_BUILD/logs/$name-regressions.log"
        echo "reliability: a saved crash input of $name crashes again" >&2
        exit 1
    fi
done

echo "== fuzzing: ${FUZZ_SECONDS}s per target, in parallel"
run_fuzzer() {  # name corpus [extra args]
    local name=$1 corpus=$2
    shift 2
    "$FUZZ_BUILD/fuzz/${name}_fuzzer" "$FUZZ_BUILD/corpus/$corpus" -max_total_time="$FUZZ_SECONDS" -timeout=10 \
        -rss_limit_mb=2048 -max_len=4096 -print_final_stats=1 -artifact_prefix="$FUZZ_BUILD/artifacts/$name-" "$@" \
        >"$FUZZ_BUILD/logs/$name.log" 2>&1
}
run_fuzzer scenario_parser scenario -dict=fuzz/scenario.dict &
pid_parser=$!
run_fuzzer host_ops host_ops &
pid_ops=$!
status=0
wait "$pid_parser" || status=1
wait "$pid_ops" || status=1
for entry in "${TARGETS[@]}"; do
    name=${entry%%:*}
    execs=$(awk '/^stat::number_of_executed_units/ {print $2}' "$FUZZ_BUILD/logs/$name.log")
    echo "   $name: ${execs:-?} executions, corpus now $(ls "$FUZZ_BUILD/corpus/${entry##*:}" | wc -l) inputs"
done
if ((status)); then
    for entry in "${TARGETS[@]}"; do
        log="$FUZZ_BUILD/logs/${entry%%:*}.log"
        if grep -qE 'ERROR: |deadly signal|Test unit written' "$log"; then tail -60 "$log"; fi
    done
    ls -l "$FUZZ_BUILD/artifacts/" >&2
    echo "reliability: a fuzz target crashed; its input is in $FUZZ_BUILD/artifacts/" >&2
    exit 1
fi

# The sanitizer build of ./dev test is the strict one: the aggregator code that only our host's key
# hashing and lookahead reach (its owner index, the lookahead hook) runs under the sanitizers here.
echo "== aggregator tests and storms with the host's capabilities, under the sanitizers"
"$FUZZ_BUILD/tests/aggregator_test" --gtest_brief=1

echo "== valgrind memcheck: storms and churn (reduced counts)"
if [ ! -x "$RELEASE_BUILD/tests/aggregator_test" ] || [ ! -x "$RELEASE_BUILD/tests/translator_test" ]; then
    cmake -S . -B "$RELEASE_BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
    cmake --build "$RELEASE_BUILD" -j "$JOBS" --target aggregator_test translator_test
fi
memcheck() {  # bounded, so that a hang under valgrind fails the pass instead of stalling CI
    timeout 300 valgrind --quiet --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect \
        --show-leak-kinds=definite,indirect "$@" --gtest_brief=1
}
# The storm and churn suites alone: memcheck's time goes to them; the rest runs in every test build.
VELTA_STORM_HISTORIES=3000 memcheck "$RELEASE_BUILD/tests/aggregator_test" --gtest_filter='AggregatorStorm.*'
VELTA_CHURN_HISTORIES=150 memcheck "$RELEASE_BUILD/tests/translator_test" --gtest_filter='TranslatorChurn.*'

echo "reliability: no crash, no sanitizer report, no memcheck error in $(($(date +%s) - START))s"
