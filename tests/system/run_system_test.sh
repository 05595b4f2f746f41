#!/usr/bin/env bash
# Runs one system test on a new board: NAME.setup (optional) prepares the board, hxc3-sim plays
# NAME.sim, NAME.check (optional) looks at what the board kept. Both helpers get the simulator and
# the board directory as $1 and $2. Set KEEP_BOARD=1 to keep the board directory for a look.
# With HXC3_IMAGE set to a target ELF, every run of the simulator (setup and check included) runs
# that image on the emulated chip instead of the host-compiled firmware.
set -u

if [ $# -ne 2 ]; then
    echo "usage: $0 HXC3_SIM NAME.sim" >&2
    exit 2
fi
sim=$1
script=$2
dir=$(dirname "$script")
name=$(basename "$script" .sim)

board=$(mktemp -d "${TMPDIR:-/tmp}/hxc3-$name.XXXXXX") || exit 1
if [ "${KEEP_BOARD:-0}" = 1 ]; then
    echo "board directory: $board"
else
    trap 'rm -rf "$board"' EXIT
fi

show_board() {
    if [ -f "$board/stats.csv" ]; then
        echo "--- $board/stats.csv" >&2
        cat "$board/stats.csv" >&2
    fi
    if [ -f "$board/rtc" ]; then
        echo "--- $board/rtc" >&2
        grep -v '^#' "$board/rtc" >&2
    fi
}

fail() {
    echo "FAIL $name: $*" >&2
    show_board
    exit 1
}

if [ -n "${HXC3_IMAGE:-}" ]; then
    [ -f "$HXC3_IMAGE" ] || { echo "FAIL $name: no image $HXC3_IMAGE (make target builds it)" >&2; exit 1; }
    real_sim=$sim
    sim=$board/hxc3-sim-image
    printf '#!/bin/sh\nexec "%s" --image "%s" "$@"\n' "$real_sim" "$HXC3_IMAGE" > "$sim"
    chmod +x "$sim"
fi

if [ -f "$dir/$name.setup" ]; then
    bash "$dir/$name.setup" "$sim" "$board" || fail "$name.setup failed"
fi

# A board the setup did not create starts at a fixed time, so that the figures repeat.
args=(--board "$board" --script "$script" --quiet --stats "$board/stats.csv")
if [ ! -f "$board/rtc" ]; then
    args+=(--time "2026-01-01 00:00:00")
fi
"$sim" "${args[@]}"
status=$?
if [ $status -ne 0 ]; then
    fail "hxc3-sim ended with status $status"
fi

if [ -f "$dir/$name.check" ]; then
    bash "$dir/$name.check" "$sim" "$board" || fail "$name.check failed"
fi
echo "PASS $name"
