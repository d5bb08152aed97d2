#!/usr/bin/env bash
# Sets up, builds and runs the agent. Arguments go to tellwyn-agent (see --help).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/setup.sh" build
cmake -S "$root" -B "$root/build/release" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTELLWYN_BUILD_TESTS=OFF >/dev/null
cmake --build "$root/build/release"
exec "$root/build/release/app/tellwyn-agent" "$@"
