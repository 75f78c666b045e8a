#!/bin/sh
# End-to-end run through a real pcscd:
#   run_e2e.sh SCRIPTS_DIR VCARD WORK_DIR TEST_PROGRAM[::GTEST_FILTER]...
# Brings pcscd up (pcscd-up.sh), serves a DESFire card on the first vpcd slot
# and a MIFARE Classic 1K card on the second with twn4-vcard, runs the test
# programs one after the other (all of them, even after a failure), stops the
# bridges and takes pcscd down again (only if pcscd-up started it). Any
# failure to set this up fails the run: it never skips. Only one run at a time
# can own the vpcd slots: a run waits for the lock ELATECTWN4_E2E_LOCK.
set -u

[ $# -ge 4 ] || { echo "usage: run_e2e.sh SCRIPTS_DIR VCARD WORK_DIR TEST_PROGRAM..." >&2; exit 2; }
scripts=$1
vcard=$2
work=$3
shift 3

fail() {
    echo "E2E FAILED: $*" >&2
    exit 1
}

for p in "$vcard" "$@"; do
    [ -x "${p%%::*}" ] || fail "no program at ${p%%::*}"
done

# Descriptor 8 holds the lock for the whole run; nothing started from here may
# inherit it (8>&-), or a leftover process would keep it.
lock=${ELATECTWN4_E2E_LOCK:-/tmp/elatectwn4-e2e.lock}
exec 8>>"$lock" || fail "cannot open the lock file $lock"
if command -v flock >/dev/null 2>&1; then
    flock -w 300 8 || fail "another end-to-end run held $lock for 300 s"
fi
{ rm -rf "$work" && mkdir -p "$work"; } || fail "cannot create $work"
export ELATECTWN4_PCSCD_STATE="${ELATECTWN4_PCSCD_STATE:-/tmp/elatectwn4-pcscd.state}"

pids=""
stop_bridges() {  # a clean stop saves the cards; a bridge that cannot is a failure
    status=0
    for card in $pids; do
        kill -TERM "${card#*:}" 2>/dev/null || continue
        wait "${card#*:}" || { echo "E2E: the ${card%:*} bridge failed (log: $work/${card%:*}.log)" >&2; status=1; }
    done
    pids=""
    return $status
}
trap 'stop_bridges; "$scripts/pcscd-down.sh" 8>&-' EXIT
trap 'exit 1' INT TERM HUP

"$scripts/pcscd-up.sh" --vcard "$vcard" 8>&- || fail "pcscd with the vpcd readers could not be brought up"

# The slots' ports come from the vpcd configuration, 0x8C7B unless changed.
port=35963
if [ -r /etc/reader.conf.d/vpcd ]; then
    channel=$(sed -n 's/^[[:space:]]*CHANNELID[[:space:]]\{1,\}\([0-9A-Fa-fx]\{1,\}\).*/\1/p' /etc/reader.conf.d/vpcd | head -n 1)
    [ -n "$channel" ] && port=$((channel))
fi

start_bridge() {  # name kind uid port
    "$vcard" --port "$4" --card "$2" --uid "$3" --state "$work/$1.json" --control "$work/$1.sock" \
        >"$work/$1.log" 2>&1 8>&- &
    pids="$pids $1:$!"
}
export E2E_DESFIRE_UID=04E1D2C3B4A580 E2E_MIFARE_UID=5A6B7C8D
start_bridge desfire desfire "$E2E_DESFIRE_UID" "$port"
export E2E_DESFIRE_PID=$!  # SIGUSR1 removes its card, SIGUSR2 inserts it
start_bridge mifare mifare1k "$E2E_MIFARE_UID" $((port + 1))

i=0
until [ -S "$work/desfire.sock" ] && [ -S "$work/mifare.sock" ]; do
    for card in $pids; do
        kill -0 "${card#*:}" 2>/dev/null || fail "the ${card%:*} bridge died: $(cat "$work/${card%:*}.log")"
    done
    i=$((i + 1))
    [ $i -lt 100 ] || fail "the bridges did not start within 10 s"
    sleep 0.1
done

export E2E_DESFIRE_READER="Virtual PCD 00 00" E2E_MIFARE_READER="Virtual PCD 00 01"
export E2E_MIFARE_CONTROL="$work/mifare.sock"
export E2E_SCRIPTS="$scripts" E2E_VCARD="$vcard"  # for the program that restarts pcscd
result=0
for entry in "$@"; do
    filter=""
    [ "${entry%%::*}" = "$entry" ] || filter="--gtest_filter=${entry#*::}"
    echo "E2E: running $entry"
    "${entry%%::*}" ${filter:+"$filter"} 8>&- || { echo "E2E: $entry failed" >&2; result=1; }
done

stop_bridges || result=1
for card in desfire mifare; do
    [ -s "$work/$card.json" ] || { echo "E2E: $work/$card.json was not kept" >&2; result=1; }
done
[ $result -eq 0 ] || echo "E2E FAILED (bridge logs in $work)" >&2
exit $result
