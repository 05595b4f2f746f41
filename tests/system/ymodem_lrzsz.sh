#!/usr/bin/env bash
# YMODEM between the board's console and lrzsz over hxc3-sim's pseudo-terminal, in real time (the
# protocol's time-outs are wall-clock times for lrzsz). Each case starts a new board:
#   calibration  "yr", then `sb --ymodem` of a calibration file and a binary file in one batch:
#                the calibration shows in "ec" and in the EEPROM, both files are on the card.
#   data-file    "ys" sends the data file to `rb --ymodem`; the copy matches the card's file.
#   cancel       sb interrupted in mid-transfer: the board answers commands afterwards and keeps
#                no partial file.
# usage: ymodem_lrzsz.sh HXC3_SIM CASE   (KEEP_BOARD=1 keeps the work directory)
set -u

if [ $# -ne 2 ]; then
    echo "usage: $0 HXC3_SIM calibration|data-file|cancel" >&2
    exit 2
fi
sim=$1
# With HXC3_IMAGE set to a target ELF the board runs that image on the emulated chip.
image_args=()
if [ -n "${HXC3_IMAGE:-}" ]; then
    image_args=(--image "$HXC3_IMAGE")
fi
case_name=$2
for tool in sb rb mcopy mdir; do
    command -v $tool >/dev/null || { echo "FAIL ymodem $case_name: $tool is not installed" >&2; exit 1; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/hxc3-ymodem.XXXXXX") || exit 1
board=$work/board
mkdir -p "$work/files" "$work/rx"
export MTOOLS_SKIP_CHECK=1
export LC_ALL=C # lengths below count bytes
sim_pid=""
reader_pid=""
log=$work/console.log # what the board sent while no lrzsz program had the line
pos=0                 # bytes of the log consumed by matches
: >"$log"

# A reader copies the console into the log, except while lrzsz has the line.
start_reader() {
    cat <&3 >>"$log" &
    reader_pid=$!
}
stop_reader() {
    if [ -n "$reader_pid" ]; then
        kill "$reader_pid" 2>/dev/null
        wait "$reader_pid" 2>/dev/null
        reader_pid=""
    fi
}

stop_sim() {
    stop_reader
    if [ -n "$sim_pid" ]; then
        kill -TERM "$sim_pid" 2>/dev/null
        wait "$sim_pid" 2>/dev/null
        sim_pid=""
    fi
}
cleanup() {
    stop_sim
    if [ "${KEEP_BOARD:-0}" = 1 ]; then
        echo "work directory: $work"
    else
        rm -rf "$work"
    fi
}
trap cleanup EXIT

fail() {
    echo "FAIL ymodem $case_name: $*" >&2
    echo "--- console output since the last match:" >&2
    tail -c +$((pos + 1)) "$log" | tail -c 600 | cat -A >&2
    echo >&2
    echo "--- simulator:" >&2
    cat "$work/sim.err" >&2
    [ -f "$work/lrzsz.err" ] && { echo "--- lrzsz:" >&2; tr '\r' '\n' <"$work/lrzsz.err" | tail -5 >&2; }
    exit 1
}

# Waits up to SECONDS (default 10) for TEXT in the console output; on success the output up to and
# including TEXT is consumed.
expect() {
    local text=$1 limit=$((SECONDS + ${2:-10})) rest before
    for (( ; ; )); do
        rest=$(tail -c +$((pos + 1)) "$log" 2>/dev/null; printf x)
        rest=${rest%x}
        if [[ "$rest" == *"$text"* ]]; then
            before=${rest%%"$text"*}
            pos=$((pos + ${#before} + ${#text}))
            return 0
        fi
        ((SECONDS < limit)) || return 1
        sleep 0.1
    done
}

type_text() {
    printf '%b' "$1" >&3
}

# A board directory at a fixed time, with its card image, before the simulator runs on it for real.
new_board() {
    "$sim" "${image_args[@]}" --board "$board" --time "2026-01-01 00:00:00" --run-for 1 --quiet </dev/null 2>/dev/null ||
        fail "the simulator could not create a board"
}

start_sim() {
    "$sim" "${image_args[@]}" --pty --board "$board" 2>"$work/sim.err" &
    sim_pid=$!
    local pty="" i
    for i in $(seq 50); do
        pty=$(sed -n 's/^console: //p' "$work/sim.err")
        [ -n "$pty" ] && break
        sleep 0.1
    done
    [ -n "$pty" ] || fail "no console pseudo-terminal"
    PTY=$pty
    exec 3<>"$PTY"
    start_reader
    # A sleeping board wakes on a key and loses it; an awake one answers a carriage return with
    # its prompt.
    for i in $(seq 15); do
        type_text '\r'
        expect ">" 2 && return 0
    done
    fail "no prompt"
}

# Runs an lrzsz program (arguments after the directory) on the console, in directory $1.
lrzsz() {
    local dir=$1 status
    shift
    stop_reader
    (cd "$dir" && timeout 60 "$@") <"$PTY" >"$PTY" 2>"$work/lrzsz.err"
    status=$?
    start_reader
    return $status
}

card_file() {
    mcopy -n -i "$board/sdcard.img" "::/$1" "$2" 2>/dev/null
}

cal_file() {
    printf '%s\r\n' "Sensor_SN,20417" "ISFET_SN,F3310" "ISE_SN,E1207" "PT_Cal_date,2025-09-02" \
        "k2_C0,-1.052000e-03" "k2_C1,2.410000e-06" "k2_C2,-7.100000e-08" "k2_C3,1.200000e-10" \
        "fP_0,1.000000e+00" "fP_1,-2.100000e-02" "fP_2,3.200000e-03" "fP_3,-4.300000e-04" \
        "fP_4,5.400000e-05" "fP_5,-6.500000e-06" "fP_6,7.600000e-07" "k0_Cal_date,2025-10-15" \
        "k0_HCl,-1.403100e+00" "k0_SW,-1.396200e+00" "k0std_SW,1.400000e-04" "service_date,2025-11-01"
}

case_calibration() {
    cal_file >"$work/files/df20417.cal"
    head -c 6000 /dev/urandom >"$work/files/blob.bin"
    new_board
    start_sim
    type_text 'yr\r'
    expect "waiting for the sender" 5 || fail "yr did not start the receiver"
    lrzsz "$work/files" sb --ymodem -k df20417.cal blob.bin || fail "sb failed"
    expect "ymodem: received df20417.cal, $(wc -c <"$work/files/df20417.cal") bytes (and 1 more files)" 10 ||
        fail "no report of the received files"
    expect "calibration loaded from df20417.cal" 2 || fail "the calibration was not loaded"
    expect ">" 5 || fail "no prompt after the transfer"
    type_text 'ec\r'
    expect "Cal filename: df20417.cal" 5 || fail "ec does not show the file name"
    local line
    while IFS= read -r line; do
        expect "${line%$'\r'}"$'\r\n' 5 || fail "ec does not show '${line%$'\r'}'"
    done <"$work/files/df20417.cal"
    stop_sim
    grep -aq "F3310" "$board/eeprom.bin" && grep -aq "df20417.cal" "$board/eeprom.bin" ||
        fail "the calibration is not in the EEPROM"
    card_file DF20417.CAL "$work/rx/cal" && cmp -s "$work/rx/cal" "$work/files/df20417.cal" ||
        fail "DF20417.CAL on the card differs"
    card_file BLOB.BIN "$work/rx/blob" && cmp -s "$work/rx/blob" "$work/files/blob.bin" ||
        fail "BLOB.BIN on the card differs"
}

case_data_file() {
    new_board
    # The data file, as the logger names it on a new board, with bytes of every value.
    { printf 'time,pH,temp\r\n'; head -c 7000 /dev/urandom; } >"$work/files/data"
    mcopy -o -i "$board/sdcard.img" "$work/files/data" ::/NONAME.TXT || fail "mcopy failed"
    start_sim
    type_text 'ys\r'
    expect "ymodem send not parsing filename yet, serial_cmd_fxn"$'\r\n' 5 || fail "ys did not answer"
    expect "Ctrl-C to cancel)"$'\r\n' 5 || fail "ys did not start the sender"
    lrzsz "$work/rx" rb --ymodem || fail "rb failed"
    expect "ymodem: sent noname.txt, $(wc -c <"$work/files/data") bytes" 10 || fail "no report of the sent file"
    expect ">" 5 || fail "no prompt after the transfer"
    stop_sim
    card_file NONAME.TXT "$work/files/card" || fail "mcopy from the card failed"
    cmp "$work/rx/noname.txt" "$work/files/card" || fail "the received copy differs from the card's file"
}

case_cancel() {
    head -c 300000 /dev/urandom >"$work/files/big.bin"
    new_board
    start_sim
    type_text 'yr\r'
    expect "waiting for the sender" 5 || fail "yr did not start the receiver"
    # A few blocks into the file the sender stops dead, and the operator cancels from the terminal
    # (CANs, as a terminal program's cancel sends them). sb's own cancel on SIGINT is not used: it
    # flushes the pty as it exits, so whether its CANs survive depends on the simulator having read
    # them first.
    stop_reader
    (cd "$work/files" && exec sb --ymodem -k big.bin) <"$PTY" >"$PTY" 2>"$work/lrzsz.err" &
    local sb_pid=$!
    sleep 4
    kill -KILL $sb_pid
    wait $sb_pid 2>/dev/null
    start_reader
    type_text '\x18\x18\x18\x18\x18\x18\x18\x18'
    expect "ymodem: cancelled"$'\r\n' 15 || fail "the interrupted transfer did not end as cancelled"
    expect ">" 5 || fail "no prompt after the cancel"
    type_text 'ec\r'
    expect "Cal filename:" 5 || fail "the console does not answer after the cancel"
    stop_sim
    mdir -b -i "$board/sdcard.img" ::/ 2>/dev/null | grep -qi "BIG.BIN" && fail "the partial file was kept"
    return 0
}

case "$case_name" in
calibration) case_calibration ;;
data-file) case_data_file ;;
cancel) case_cancel ;;
*)
    echo "unknown case '$case_name'" >&2
    exit 2
    ;;
esac
echo "PASS ymodem $case_name"
