#!/usr/bin/env bash
# Takes the screenshot of the update sheet in docs/: the real agent under Xvfb asks a feed served on
# loopback, the sheet opens, and the screen is captured. Needs xvfb and imagemagick (`import`).
# Usage: screenshot-update-sheet.sh [AGENT] [OUTPUT.png]
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
agent="${1:-$root/build/app/tellwyn-agent}"
output="${2:-$root/docs/update-sheet.png}"
command -v Xvfb >/dev/null && command -v import >/dev/null || {
    echo "screenshot-update-sheet.sh: needs Xvfb and import (apt-get install xvfb imagemagick)" >&2; exit 1; }

scratch="$(mktemp -d)"
pids=()
cleanup() { for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done; rm -rf "$scratch"; }
trap cleanup EXIT

printf '9.0.0|Major|A new dashboard with live charts, quicker sign-in and\nclipboard sharing that keeps formatting.|https://www.brevane.com/downloads/TellwynAgent_9.0.0_amd64.deb\n' \
    > "$scratch/tellwynagent.txt"
port="$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')"
python3 -m http.server "$port" --bind 127.0.0.1 --directory "$scratch" >/dev/null 2>&1 & pids+=($!)
display=":$((90 + RANDOM % 100))"
Xvfb "$display" -screen 0 800x500x24 -nolisten tcp >/dev/null 2>&1 & pids+=($!)
sleep 1
DISPLAY="$display" HOME="$scratch" XDG_RUNTIME_DIR="$scratch" "$agent" --check-for-updates \
    --update-feed "http://127.0.0.1:$port/tellwynagent.txt" >/dev/null 2>&1 & pids+=($!)
sleep 3
window="$(DISPLAY="$display" xwininfo -root -tree | awk '/"Update Available"/ {print $1; exit}')"
if [ -n "$window" ]; then
    DISPLAY="$display" import -window "$window" -frame "$output"
else
    DISPLAY="$display" import -window root "$output"
fi
echo "$output"
