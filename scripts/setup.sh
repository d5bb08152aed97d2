#!/usr/bin/env bash
# Installs the Debian packages the agent needs. Usage: setup.sh [build] [test]
# Quick when everything is there already; asks apt only for what is missing.
set -euo pipefail

build_packages=(g++ cmake ninja-build pkg-config qt6-base-dev qt6-base-dev-tools libgl-dev libssl-dev
                libxcb1-dev libxcb-randr0-dev)
test_packages=(openssl python3 procps xvfb xdotool)

wanted=()
for group in "$@"; do
    case "$group" in
        build) wanted+=("${build_packages[@]}") ;;
        test) wanted+=("${test_packages[@]}") ;;
        *) echo "setup.sh: unknown group '$group' (use build, test)" >&2; exit 2 ;;
    esac
done

missing=()
for package in "${wanted[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "setup.sh: run as root or install sudo to add: ${missing[*]}" >&2; exit 1; }
    as_root=(sudo)
fi
echo "setup.sh: installing ${missing[*]}"
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
