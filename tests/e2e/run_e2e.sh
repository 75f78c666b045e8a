#!/bin/sh
# End-to-end run through a real pcscd:
#   run_e2e.sh VCARD TEST_PROGRAM SCRIPTS_DIR WORK_DIR
# Brings pcscd up (pcscd-up.sh), serves a DESFire card on the first vpcd slot
# and a MIFARE Classic 1K card on the second with twn4-vcard, runs the PC/SC
# test program against them, stops the bridges and takes pcscd down again
# (pcscd-down.sh stops it only if pcscd-up started it). Any failure to set
# this up fails the run: it never skips.
set -u

vcard=$1
program=$2
scripts=$3
work=$4

fail() {
    echo "E2E FAILED: $*" >&2
    exit 1
}

[ -x "$vcard" ] || fail "no twn4-vcard at $vcard"
[ -x "$program" ] || fail "no test program at $program"
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
    "$scripts/pcscd-down.sh"
}
trap cleanup EXIT
trap 'exit 1' INT TERM HUP

"$scripts/pcscd-up.sh" --vcard "$vcard" || fail "pcscd with the vpcd readers could not be brought up"

# The slots' ports come from the vpcd configuration, 0x8C7B unless changed.
port=35963
if [ -r /etc/reader.conf.d/vpcd ]; then
    channel=$(sed -n 's/^[[:space:]]*CHANNELID[[:space:]]\{1,\}\([0-9A-Fa-fx]\{1,\}\).*/\1/p' /etc/reader.conf.d/vpcd | head -n 1)
    [ -n "$channel" ] && port=$((channel))
fi

desfire_uid=04E1D2C3B4A580
mifare_uid=5A6B7C8D
"$vcard" --port "$port" --card desfire --uid "$desfire_uid" --state "$work/desfire.json" \
    --control "$work/desfire.sock" >"$work/desfire.log" 2>&1 &
desfire_pid=$!
"$vcard" --port $((port + 1)) --card mifare1k --uid "$mifare_uid" --state "$work/mifare.json" \
    --control "$work/mifare.sock" >"$work/mifare.log" 2>&1 &
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

E2E_DESFIRE_READER="Virtual PCD 00 00" \
E2E_MIFARE_READER="Virtual PCD 00 01" \
E2E_DESFIRE_PID=$desfire_pid \
E2E_DESFIRE_UID=$desfire_uid \
E2E_MIFARE_UID=$mifare_uid \
E2E_MIFARE_CONTROL="$work/mifare.sock" \
E2E_MIFARE_STATE="$work/mifare.json" \
    "$program"
result=$?

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
