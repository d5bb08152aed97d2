#!/usr/bin/env bash
# Sets up, builds and runs every test: unit and integration tests on the normal build, then the
# unit tests again under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/setup.sh" build test
jobs="$(nproc)"

cmake -S "$root" -B "$root/build/tests" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build/tests" -j "$jobs"
(cd "$root/build/tests" && ctest --output-on-failure -j "$jobs")

cmake -S "$root" -B "$root/build/sanitize" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTELLWYN_SANITIZE=ON >/dev/null
cmake --build "$root/build/sanitize" -j "$jobs" --target unit_tests
(cd "$root/build/sanitize" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --output-on-failure -j "$jobs" -L unit)
