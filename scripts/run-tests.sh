#!/usr/bin/env bash
# Sets up, builds and runs every test: unit and integration tests on the normal build, then the
# unit tests again under AddressSanitizer and UndefinedBehaviorSanitizer, then the wire decoder
# under libFuzzer for a short while, and finally the Debian packages.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/setup.sh" build test package
jobs="$(nproc)"

# The tree is formatted by the checked-in .clang-format; a change it would make fails the run.
(cd "$root" && git ls-files -z '*.cpp' '*.h' '*.c' | xargs -0 clang-format --dry-run --Werror) || {
    echo "FAIL: clang-format would change the files above; run: git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format -i" >&2
    exit 1
}

# A compiler cache, where one is installed, makes repeated runs quick.
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi

cmake -S "$root" -B "$root/build/test-run" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" >/dev/null
cmake --build "$root/build/test-run" -j "$jobs"

# The command-line viewer runs on machines without a desktop: it must not load Qt Gui, Qt D-Bus
# or xcb (the Avahi client's own libdbus-1 is fine).
viewer="$root/build/test-run/viewer/tellwyn"
ldd "$viewer" >/dev/null # fails the run when the viewer is missing or unreadable
if desktop_libraries="$(ldd "$viewer" | grep -E 'libQt6Gui|libQt6DBus|libxcb')"; then
    echo "FAIL: the viewer $viewer loads desktop libraries:" >&2
    echo "$desktop_libraries" >&2
    echo "Link the viewer against tellwyn_platform only, never tellwyn_platform_desktop." >&2
    exit 1
fi

# A headless agent must not map the desktop's libraries: they belong to its desktop module.
agent="$root/build/test-run/app/tellwyn-agent"
ldd "$agent" >/dev/null
if desktop_libraries="$(ldd "$agent" | grep -E 'libQt6Gui|libQt6Widgets|libqt6keychain|libX11')"; then
    echo "FAIL: the agent $agent loads desktop libraries:" >&2
    echo "$desktop_libraries" >&2
    echo "Link them into the desktop module (tellwyn-agent-desktop) only." >&2
    exit 1
fi

(cd "$root/build/test-run" && ctest --output-on-failure -j "$jobs")

cmake -S "$root" -B "$root/build/sanitize" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTELLWYN_SANITIZE=ON "${launcher[@]}" \
    >/dev/null
cmake --build "$root/build/sanitize" -j "$jobs" --target unit_tests
(cd "$root/build/sanitize" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --output-on-failure -j "$jobs" -L unit)

# The frame and message decoder under libFuzzer, briefly, from the seed corpus kept in the repo
# (new inputs go to a scratch folder, so the checked-in corpus stays as it is).
CC=clang-14 CXX=clang++-14 cmake -S "$root" -B "$root/build/fuzz" -G Ninja -DTELLWYN_FUZZ=ON >/dev/null
cmake --build "$root/build/fuzz" -j "$jobs"
fuzz_scratch="$(mktemp -d)"
trap 'rm -rf "$fuzz_scratch"' EXIT
"$root/build/fuzz/tests/fuzz/fuzz_hlvp_codec" -max_total_time="${TELLWYN_FUZZ_SECONDS:-30}" -max_len=70000 \
    -print_final_stats=1 "$fuzz_scratch" "$root/tests/fuzz/corpus" 2>&1 | tail -n 12

# The Debian packages: built, checked by lintian, installed, upgraded and purged in a fresh root.
"$root/tests/package/test-packages.sh"
