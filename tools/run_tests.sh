#!/usr/bin/env bash
# The whole test suite: a plain g++ build, an AddressSanitizer+UBSan clang
# build, a ThreadSanitizer g++ build (each with its ctest run), and a short
# libFuzzer run of every fuzz harness.
# Build trees live under build-ci/. Exits non-zero when anything failed.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
ci=$root/build-ci
mkdir -p "$ci"

bash tools/install_deps.sh

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    export CCACHE_NOHASHDIR=1  # reruns and other build trees share cached objects
fi

export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:abort_on_error=0:detect_stack_use_after_return=0
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export LSAN_OPTIONS=report_objects=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

total_passed=0
total_failed=0
failed_stages=()

header() {
    echo
    echo "================================================================"
    echo "== $*"
    echo "================================================================"
}

# Adds one ctest log's results to the totals ("x% tests passed, F tests failed
# out of T"; tests that did not run, e.g. skipped ones, count as neither).
tally() {
    local log=$1 line total failed notrun
    line=$(grep -E '[0-9]+ tests? failed out of [0-9]+' "$log" | tail -n1 || true)
    if [ -z "$line" ]; then
        echo "no ctest summary in $log"
        total_failed=$((total_failed + 1))
        return
    fi
    failed=$(sed -E 's/.* ([0-9]+) tests? failed out of.*/\1/' <<<"$line")
    total=$(sed -E 's/.*failed out of ([0-9]+).*/\1/' <<<"$line")
    notrun=$(grep -cE '\((Skipped|Disabled)\)' "$log" || true)
    total_passed=$((total_passed + total - failed - notrun))
    total_failed=$((total_failed + failed))
}

# configure + build (keep going past broken targets) + ctest, in build-ci/<name>.
# Extra cmake arguments follow the name; CTEST_PREFIX may wrap the ctest call.
run_stage() {
    local name=$1
    shift
    local dir=$ci/$name log=$ci/$name.ctest.log
    local ok=1
    if ! cmake -S "$root" -B "$dir" "${launcher[@]}" "$@"; then
        echo "configure failed: $name"
        failed_stages+=("$name: configure")
        total_failed=$((total_failed + 1))
        return
    fi
    if ! cmake --build "$dir" -j2 -- -k; then
        echo "build failed (continuing with what was built): $name"
        failed_stages+=("$name: build")
        ok=0
    fi
    # shellcheck disable=SC2086
    if ! ${CTEST_PREFIX:-} ctest --test-dir "$dir" --output-on-failure -j2 2>&1 | tee "$log"; then
        failed_stages+=("$name: tests")
    fi
    tally "$log"
    if [ $ok -eq 0 ]; then total_failed=$((total_failed + 1)); fi
}

# Some kernels randomise mmap more than ThreadSanitizer accepts; then the
# TSan tests run with address randomisation off.
tsan_prefix() {
    local dir probe out
    dir=$(mktemp -d)
    probe=$dir/probe
    printf '#include <thread>\nint main(){int x=0;std::thread t([&]{x=1;});t.join();return x-1;}\n' \
        >"$probe.cpp"
    if ! g++ -fsanitize=thread -pthread "$probe.cpp" -o "$probe" 2>/dev/null; then
        rm -rf "$dir"
        return
    fi
    out=$("$probe" 2>&1 || true)
    if grep -q "unexpected memory mapping" <<<"$out" ||
       ! "$probe" >/dev/null 2>&1; then
        echo "setarch $(uname -m) -R"
    fi
    rm -rf "$dir"
}

header "1/4 plain build (g++, -Werror, benchmarks compiled) + ctest"
run_stage plain -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ -DTARN_WERROR=ON \
    -DTARN_BUILD_BENCH=ON

header "2/4 AddressSanitizer + UBSan build (clang) + ctest"
run_stage asan -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DTARN_SANITIZE=address \
    -DTARN_WERROR=ON -DTARN_BUILD_BENCH=OFF

header "3/4 ThreadSanitizer build (g++) + ctest"
CTEST_PREFIX=$(tsan_prefix)
if [ -n "$CTEST_PREFIX" ]; then echo "TSan needs: $CTEST_PREFIX"; fi
CTEST_PREFIX=$CTEST_PREFIX run_stage tsan -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ \
    -DTARN_SANITIZE=thread -DTARN_BUILD_BENCH=OFF

# One line per harness of tests/fuzz/ (see its CMakeLists.txt).
fuzzers=(
    dbc_fuzz
    frames_fuzz
    native_reader_fuzz
    native_fuzz
)
fuzz_seconds=30

header "4/4 libFuzzer runs: ${fuzzers[*]} (${fuzz_seconds} s each)"
if [ -f "$root/tests/fuzz/CMakeLists.txt" ]; then
    fuzz_dir=$ci/fuzz
    artifacts=$ci/fuzz-artifacts
    mkdir -p "$artifacts"
    if cmake -S "$root" -B "$fuzz_dir" "${launcher[@]}" -DCMAKE_C_COMPILER=clang \
        -DCMAKE_CXX_COMPILER=clang++ -DTARN_BUILD_FUZZ=ON -DTARN_BUILD_TESTS=OFF \
        -DTARN_BUILD_BENCH=OFF -DTARN_BUILD_EXAMPLES=OFF &&
        cmake --build "$fuzz_dir" -j2 --target "${fuzzers[@]}"; then
        fuzz_built=1
    else
        fuzz_built=0
    fi
    for name in "${fuzzers[@]}"; do
        fuzz_ok=0
        fuzzer=$fuzz_dir/tests/fuzz/$name
        if [ $fuzz_built -eq 1 ] && [ -x "$fuzzer" ]; then
            corpus=$(mktemp -d "$ci/fuzz-corpus.XXXXXX")
            args=(-max_total_time=$fuzz_seconds -timeout=5 -rss_limit_mb=2048
                  -print_final_stats=1 "-artifact_prefix=$artifacts/$name-")
            dict=$root/tests/fuzz/$name.dict
            if [ -f "$dict" ]; then args+=("-dict=$dict"); fi
            if (cd "$fuzz_dir" && "$fuzzer" "${args[@]}" "$corpus" \
                "$root/tests/fuzz/seeds/$name"); then
                fuzz_ok=1
            fi
            rm -rf "$corpus"
        fi
        if [ $fuzz_ok -eq 1 ]; then
            echo "fuzz run of $name passed"
            total_passed=$((total_passed + 1))
        else
            echo "fuzz run of $name FAILED: a crashing input goes to" \
                "tests/fuzz/regressions/$name/ (from $artifacts)"
            failed_stages+=("fuzz: $name")
            total_failed=$((total_failed + 1))
        fi
    done
else
    echo "no fuzz harness (tests/fuzz/CMakeLists.txt): skipped"
fi

header "summary"
for stage in "${failed_stages[@]+"${failed_stages[@]}"}"; do
    echo "failed: $stage"
done
echo "(ctest results of all builds; a failed build or fuzz run counts as one failure)"
echo "$total_passed passed, $total_failed failed"
[ "$total_failed" -eq 0 ] && [ ${#failed_stages[@]} -eq 0 ]
