#!/usr/bin/env bash
# Builds everything and runs every test: the release build with its unit and integration tests, the
# same tests under AddressSanitizer and UndefinedBehaviorSanitizer (clang), and each fuzz target for a
# short run over its seed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc)
fuzz_seconds=${QLB_FUZZ_SECONDS:-10}

scripts/install-deps.sh

echo "== format check"
mapfile -t sources < <(git ls-files '*.cpp' '*.h' 2>/dev/null || find src tools tests bench -name '*.cpp' -o -name '*.h')
if [ ${#sources[@]} -gt 0 ]; then
    clang-format --dry-run --Werror "${sources[@]}"
fi

echo "== release build and tests"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQLB_WERROR=ON \
      -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs" --timeout 300 --repeat until-pass:2

echo "== sanitizer build (address, undefined) and tests, fuzz targets"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang \
      -DCMAKE_CXX_COMPILER=clang++ -DQLB_SANITIZE=address,undefined -DQLB_BUILD_FUZZ=ON \
      -DQLB_BUILD_BENCH=OFF -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan --output-on-failure -j"$jobs" --timeout 600 --repeat until-pass:2

if [ -d build-asan/fuzz ]; then
    for fuzzer in build-asan/fuzz/*; do
        [ -x "$fuzzer" ] || continue
        name=$(basename "$fuzzer")
        corpus="$root/tests/fuzz/corpus/$name"
        work=$(mktemp -d)
        [ -d "$corpus" ] && cp -r "$corpus"/. "$work"/
        echo "-- fuzz $name (${fuzz_seconds}s)"
        "$fuzzer" -max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=0 \
            "$work" 2>&1 | tail -n 3
        rm -rf "$work"
    done
fi
echo "all tests passed"
