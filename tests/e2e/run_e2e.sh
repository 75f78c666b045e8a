#!/bin/sh
# End-to-end run through a real pcscd:
#   run_e2e.sh VCARD TEST_PROGRAM SCRIPTS_DIR WORK_DIR [TEST_PROGRAM...]
# Brings pcscd up (pcscd-up.sh), serves a DESFire card on the first vpcd slot
# and a MIFARE Classic 1K card on the second with twn4-vcard, runs the test
# programs one after the other against them (all of them, even after a
# failure), stops the bridges and takes pcscd down again (pcscd-down.sh stops
# it only if pcscd-up started it). Any failure to set this up fails the run:
# it never skips.
#
# Only one run at a time can own the vpcd slots, so a run waits for the
# machine-wide lock ELATECTWN4_E2E_LOCK (default /tmp/elatectwn4-e2e.lock).
# E2E_TWN4, when set, is handed on to the programs (the twn4 tool to test).
set -u

[ $# -ge 4 ] || { echo "usage: run_e2e.sh VCARD TEST_PROGRAM SCRIPTS_DIR WORK_DIR [TEST_PROGRAM...]" >&2; exit 2; }
vcard=$1
program=$2
scripts=$3
work=$4
shift 4

fail() {
    echo "E2E FAILED: $*" >&2
    exit 1
}

[ -x "$vcard" ] || fail "no twn4-vcard at $vcard"
for p in "$program" "$@"; do
    p=${p%%::*}
    [ -x "$p" ] || fail "no test program at $p"
done

# Descriptor 8 holds the lock for the whole run; nothing started from here
# may inherit it (see the 8>&- below), or a leftover process would keep it.
lock=${ELATECTWN4_E2E_LOCK:-/tmp/elatectwn4-e2e.lock}
exec 8>>"$lock" || fail "cannot open the lock file $lock"
if command -v flock >/dev/null 2>&1; then
    flock -w 300 8 || fail "another end-to-end run held $lock for 300 s"
fi
{ rm -rf "$work" && mkdir -p "$work"; } || fail "cannot create $work"

# pcscd-up and pcscd-down share their state file; keep it with this run.
export ELATECTWN4_PCSCD_STATE="${ELATECTWN4_PCSCD_STATE:-/tmp/elatectwn4-pcscd.state}"

desfire_pid=""
mifare_pid=""
stop_bridge() {  # pid name
    [ -n "$1" ] || return 0
    kill -TERM "$1" 2>/dev/null || return 0
    wait "$1"
    status=$?
    if [ "$status" -ne 0 ]; then
        echo "E2E: the $2 bridge exited with status $status (log: $work/$2.log)" >&2
        return 1
    fi
}
# shellcheck disable=SC2317  # called from the EXIT trap
cleanup() {
    stop_bridge "$desfire_pid" desfire
    stop_bridge "$mifare_pid" mifare
    desfire_pid=""
    mifare_pid=""
    "$scripts/pcscd-down.sh" 8>&-
}
trap cleanup EXIT
trap 'exit 1' INT TERM HUP

"$scripts/pcscd-up.sh" --vcard "$vcard" 8>&- || fail "pcscd with the vpcd readers could not be brought up"

# The slots' ports come from the vpcd configuration, 0x8C7B unless changed.
port=35963
if [ -r /etc/reader.conf.d/vpcd ]; then
    channel=$(sed -n 's/^[[:space:]]*CHANNELID[[:space:]]\{1,\}\([0-9A-Fa-fx]\{1,\}\).*/\1/p' /etc/reader.conf.d/vpcd | head -n 1)
    [ -n "$channel" ] && port=$((channel))
fi

desfire_uid=04E1D2C3B4A580
mifare_uid=5A6B7C8D
"$vcard" --port "$port" --card desfire --uid "$desfire_uid" --state "$work/desfire.json" \
    --control "$work/desfire.sock" >"$work/desfire.log" 2>&1 8>&- &
desfire_pid=$!
"$vcard" --port $((port + 1)) --card mifare1k --uid "$mifare_uid" --state "$work/mifare.json" \
    --control "$work/mifare.sock" >"$work/mifare.log" 2>&1 8>&- &
mifare_pid=$!

# Both control sockets appear once the bridges run.
i=0
until [ -S "$work/desfire.sock" ] && [ -S "$work/mifare.sock" ]; do
    kill -0 "$desfire_pid" 2>/dev/null || fail "the desfire bridge died: $(cat "$work/desfire.log")"
    kill -0 "$mifare_pid" 2>/dev/null || fail "the mifare bridge died: $(cat "$work/mifare.log")"
    i=$((i + 1))
    [ $i -lt 100 ] || fail "the bridges did not start within 10 s"
    sleep 0.1
done

export E2E_DESFIRE_READER="Virtual PCD 00 00"
export E2E_MIFARE_READER="Virtual PCD 00 01"
export E2E_DESFIRE_PID=$desfire_pid
export E2E_DESFIRE_UID=$desfire_uid
export E2E_MIFARE_UID=$mifare_uid
export E2E_MIFARE_CONTROL="$work/mifare.sock"
export E2E_MIFARE_STATE="$work/mifare.json"
# For a program that restarts pcscd (through these scripts, by the PID they keep).
export E2E_SCRIPTS="$scripts"
export E2E_VCARD="$vcard"
result=0
# An entry PROGRAM::FILTER runs only the GoogleTest cases FILTER names.
for entry in "$program" "$@"; do
    p=${entry%%::*}
    set --
    [ "$p" = "$entry" ] || set -- "--gtest_filter=${entry#*::}"
    echo "E2E: running $entry"
    "$p" "$@" 8>&- || { echo "E2E: $entry failed" >&2; result=1; }
done

# A clean stop saves the cards; a bridge that cannot is a failure too.
stop_bridge "$desfire_pid" desfire || result=1
desfire_pid=""
stop_bridge "$mifare_pid" mifare || result=1
mifare_pid=""
for card in desfire mifare; do
    [ -s "$work/$card.json" ] || { echo "E2E: $work/$card.json was not kept" >&2; result=1; }
done

[ $result -eq 0 ] || echo "E2E FAILED (bridge logs in $work)" >&2
exit $result
