# Helpers the fault tests' .setup and .check files source, with the simulator as $sim and the board
# directory as $board.
export MTOOLS_SKIP_CHECK=1
lib=$(dirname "${BASH_SOURCE[0]}")

# A new board at 2026-01-01 00:00:00 (or at the time given).
new_board() {
    "$sim" --board "$board" --fast --quiet --run-for 1 --time "${1:-2026-01-01 00:00:00}"
}

# Runs one of the helper scripts above on the board.
run_lib() {
    "$sim" --board "$board" --fast --quiet --script "$lib/$1"
}

# The card passes fsck.fat -n.
card_clean() {
    fsck.fat -n "$board/sdcard.img" >/dev/null && return 0
    echo "fsck.fat -n reports problems:"
    fsck.fat -n "$board/sdcard.img"
    return 1
}

# A file of the card on stdout.
card_file() {
    mtype -i "$board/sdcard.img" "::$1"
}

# The little-endian 32-bit word at a byte offset of fram.bin or eeprom.bin.
word_at() {
    od -An -tu4 -j "$2" -N 4 "$board/$1" | tr -d ' '
}

# Writes the 32-bit word $3 (little-endian) at byte offset $2 of fram.bin or eeprom.bin.
put_word() {
    printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($3 & 255)) $((($3 >> 8) & 255)) \
        $((($3 >> 16) & 255)) $((($3 >> 24) & 255)))" |
        dd of="$board/$1" bs=1 seek="$2" conv=notrunc status=none
}

# sys_samp in FRAM: its state (0 IDLE, 1 DEPLOYED) and its validity mark.
fram_state() { word_at fram.bin $((0x40)); }
fram_mark() { word_at fram.bin $((0x40 + 40)); }

# How the periods of this run began (power, pin, rtc, watchdog, reset), one per line.
period_starts() {
    tail -n +2 "$board/stats.csv" | cut -d, -f2
}

# Every data line of a data file's text has as many tab-separated columns as the column header above
# it names (the header ends each name with a tab, a data line has none after its last column).
columns_aligned() {
    printf '%s\n' "$1" | awk -F'\t' '
        /^\/\// || /^\r?$/ { next }
        /^#/ { if (NF != want) { print "line " NR ": " NF " columns under a header of " want; bad = 1 } next }
        { want = NF - 1 }
        END { exit bad }'
}

fail() {
    echo "$*"
    exit 1
}
