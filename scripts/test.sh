#!/usr/bin/env bash
# Builds and runs every test: the plain build, the AddressSanitizer +
# UndefinedBehaviorSanitizer build, and a bounded run of every fuzz target.
# Must run as root: each test case runs in private namespaces.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
jobs=$(nproc)

echo "== plain build =="
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$jobs"
ctest --test-dir build -j "$jobs" --output-on-failure

echo "== sanitized build =="
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DPLR_SANITIZE=ON >/dev/null
cmake --build build-asan -j "$jobs"
ctest --test-dir build-asan -j "$jobs" --output-on-failure

echo "== fuzz smoke run =="
cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug -DPLR_FUZZ=ON -DPLR_TESTS=OFF \
      -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build build-fuzz -j "$jobs"
fuzzers=$(find build-fuzz/fuzz -maxdepth 1 -type f -name 'fuzz_*' -perm -u+x | sort)
passed=0
for f in $fuzzers; do
  name=$(basename "$f")
  corpus="fuzz/corpus/${name#fuzz_}"
  mkdir -p "build-fuzz/work/$name"
  args=("build-fuzz/work/$name")
  [ -d "$corpus" ] && args+=("$corpus")
  echo "-- $name"
  "$f" -runs=20000 -max_total_time=60 -max_len=4096 "${args[@]}" 2>&1 | tail -n 3
  passed=$((passed + 1))
done
echo "fuzz: $passed passed, 0 failed"
