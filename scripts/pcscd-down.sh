#!/bin/sh
# Stops the pcscd that pcscd-up.sh started, by its recorded PID, and removes
# the state file. A pcscd that pcscd-up found already running is left alone.
#
# Environment: ELATECTWN4_PCSCD_STATE  as for pcscd-up.sh
set -eu

say() { echo "pcscd-down: $*"; }

state=${ELATECTWN4_PCSCD_STATE:-${XDG_RUNTIME_DIR:-/tmp}/elatectwn4-pcscd.state}
if [ ! -f "$state" ]; then
    say "no state file $state: pcscd-up started nothing, nothing to stop"
    exit 0
fi

pid=$(sed -n 's/^pid=//p' "$state")
case $pid in
    ''|*[!0-9]*) say "state file $state holds no PID; removing it"; rm -f "$state"; exit 0 ;;
esac

# A zombie still answers kill -0 (when nothing reaps it); it counts as gone.
alive() {
    kill -0 "$1" 2>/dev/null && [ "$(sed -n 's/^State:[[:space:]]*\(.\).*/\1/p' "/proc/$1/status" 2>/dev/null)" != Z ]
}

# The PID may have been reused since; only a pcscd is ours to stop.
if ! alive "$pid" || [ "$(cat "/proc/$pid/comm" 2>/dev/null)" != pcscd ]; then
    say "pcscd (pid $pid) is no longer running"
    rm -f "$state"
    exit 0
fi

kill -TERM "$pid"
i=0
while alive "$pid" && [ $i -lt 50 ]; do
    sleep 0.1
    i=$((i + 1))
done
if alive "$pid"; then
    say "pcscd (pid $pid) ignored SIGTERM for 5 s; sending SIGKILL"
    kill -KILL "$pid" 2>/dev/null || true
fi
rm -f "$state"
say "stopped pcscd (pid $pid)"
