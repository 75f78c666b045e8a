#!/bin/sh
# Makes sure a pcscd with the vpcd virtual readers is running.
#
#   pcscd-up.sh [--vcard PATH] [--timeout SECONDS]
#
# Installs pcscd and vsmartcard-vpcd with apt-get when they are missing (needs
# root). Uses a pcscd that is already running; otherwise waits until the vpcd
# ports are free (see below), starts one in the background and records its PID
# in the state file, so that pcscd-down.sh stops exactly that process and
# nothing else. Then waits until both vpcd readers are listed, using
# `twn4-vcard --list-readers` (found through --vcard, $TWN4_VCARD or $PATH).
#
# Environment: ELATECTWN4_PCSCD_STATE  state file (default
#   ${XDG_RUNTIME_DIR:-/tmp}/elatectwn4-pcscd.state)
#   ELATECTWN4_PCSCD_LOG    pcscd's output (default /tmp/elatectwn4-pcscd.log)
set -eu

say() { echo "pcscd-up: $*"; }
die() { echo "pcscd-up: error: $*" >&2; exit 1; }

vcard=${TWN4_VCARD:-}
timeout=20
while [ $# -gt 0 ]; do
    case $1 in
        --vcard) [ $# -ge 2 ] || die "--vcard needs a path"; vcard=$2; shift 2 ;;
        --timeout) [ $# -ge 2 ] || die "--timeout needs seconds"; timeout=$2; shift 2 ;;
        -h|--help) sed -n '2,18s/^# \{0,1\}//p' "$0"; exit 0 ;;
        *) die "unknown argument $1" ;;
    esac
done
if [ -z "$vcard" ]; then
    vcard=$(command -v twn4-vcard || true)
fi

state=${ELATECTWN4_PCSCD_STATE:-${XDG_RUNTIME_DIR:-/tmp}/elatectwn4-pcscd.state}
logfile=${ELATECTWN4_PCSCD_LOG:-/tmp/elatectwn4-pcscd.log}
driver=/usr/lib/pcsc/drivers/serial/libifdvpcd.so
vpcd_conf=/etc/reader.conf.d/vpcd

# --- packages --------------------------------------------------------------
missing=""
command -v pcscd >/dev/null 2>&1 || [ -x /usr/sbin/pcscd ] || missing="pcscd"
[ -e "$driver" ] || missing="$missing vsmartcard-vpcd"
if [ -n "$missing" ]; then
    [ "$(id -u)" -eq 0 ] || die "missing packages:$missing (run as root to install them)"
    command -v apt-get >/dev/null 2>&1 || die "missing packages:$missing and no apt-get to install them"
    say "installing$missing"
    export DEBIAN_FRONTEND=noninteractive
    # Without a package list (fresh container) the install cannot find anything.
    # $missing is a list of names: it is split on purpose.
    # shellcheck disable=SC2086
    if ! apt-get install -y --no-install-recommends $missing >/dev/null 2>&1; then
        apt-get update -q >/dev/null || die "apt-get update failed"
        # shellcheck disable=SC2086
        apt-get install -y --no-install-recommends $missing >/dev/null || die "apt-get install$missing failed"
    fi
fi
PATH=$PATH:/usr/sbin:/sbin
command -v pcscd >/dev/null 2>&1 || die "pcscd is not installed"
[ -e "$driver" ] || die "the vpcd driver $driver is not installed"

port=35963  # 0x8C7B, vpcd's own default
if [ -r "$vpcd_conf" ]; then
    channel=$(sed -n 's/^[[:space:]]*CHANNELID[[:space:]]\{1,\}\([0-9A-Fa-fx]\{1,\}\).*/\1/p' "$vpcd_conf" | head -n 1)
    if [ -n "$channel" ]; then
        port=$((channel))
        say "vpcd slots listen on ports $port and $((port + 1)) ($vpcd_conf)"
    fi
fi

# --- vpcd ports ------------------------------------------------------------
# The vpcd driver binds its two ports once, when pcscd starts, and if either is
# taken it drops both readers for good: waiting for the readers cannot help
# then. It binds with SO_REUSEADDR, so its own earlier connections do not stop
# it, but a socket without that option does: a listener, an open connection,
# or the 60-second TIME_WAIT of a client's closed connection that the kernel
# happened to give one of these ports.

# What holds the two ports, one socket a line (nothing when no socket does).
port_holders() {
    if command -v ss >/dev/null 2>&1; then
        ss -Htan "( sport = :$port or sport = :$((port + 1)) )" 2>/dev/null || true
    else
        # Local addresses in /proc are hex "ADDR:PORT".
        awk -v a="$(printf ':%04X' "$port")" -v b="$(printf ':%04X' $((port + 1)))" \
            'FNR > 1 && (substr($2, length($2) - 4) == a || substr($2, length($2) - 4) == b) { print $2, "->", $3 }' \
            /proc/net/tcp /proc/net/tcp6 2>/dev/null || true
    fi
}

# Whether vpcd could bind `port` now, tried the way it binds; without perl,
# any socket on the port counts.
port_free() {
    if command -v perl >/dev/null 2>&1; then
        perl -MSocket -e '
            socket(my $s, PF_INET, SOCK_STREAM, 0) or exit 2;
            setsockopt($s, SOL_SOCKET, SO_REUSEADDR, 1) or exit 2;
            exit(bind($s, pack_sockaddr_in($ARGV[0], INADDR_ANY)) ? 0 : 1);' "$1"
        case $? in 0) return 0 ;; 1) return 1 ;; esac
    fi
    [ -z "$(ss -Htan "( sport = :$1 )" 2>/dev/null)" ]
}

# Waits up to `port_patience` seconds for both ports; says why while it waits.
port_patience=65
wait_for_ports() {
    port_deadline=$(($(date +%s) + port_patience))
    waited=""
    until port_free "$port" && port_free $((port + 1)); do
        if [ -z "$waited" ]; then
            say "waiting up to ${port_patience}s for ports $port and $((port + 1)): vpcd binds them once when pcscd starts and drops its readers if it cannot; held by:"
            port_holders | sed 's/^/    /'
            waited=yes
        fi
        if [ "$(date +%s)" -ge "$port_deadline" ]; then
            say "warning: ports $port/$((port + 1)) still held after ${port_patience}s; starting pcscd anyway"
            return 0
        fi
        sleep 1
    done
    [ -z "$waited" ] || say "ports $port and $((port + 1)) are free"
}

# --- pcscd -----------------------------------------------------------------
# Two callers starting at once must not both start a pcscd.
lock=${state}.lock
exec 9>"$lock"
if command -v flock >/dev/null 2>&1; then
    flock -w 30 9 || die "another pcscd-up holds $lock"
fi

# A zombie still answers kill -0; it counts as gone.
pid_alive() {
    [ -n "$1" ] && kill -0 "$1" 2>/dev/null && [ "$(sed -n 's/^State:[[:space:]]*\(.\).*/\1/p' "/proc/$1/status" 2>/dev/null)" != Z ]
}
is_pcscd() { [ -r "/proc/$1/comm" ] && [ "$(cat "/proc/$1/comm")" = pcscd ]; }

started_pid=""
started_now=""
if [ -f "$state" ]; then
    started_pid=$(sed -n 's/^pid=//p' "$state")
    if pid_alive "$started_pid" && is_pcscd "$started_pid"; then
        say "pcscd (pid $started_pid) started earlier by pcscd-up is still running; using it"
    else
        say "dropping stale state file $state"
        rm -f "$state"
        started_pid=""
    fi
fi

if [ -z "$started_pid" ]; then
    running=$(pidof pcscd 2>/dev/null || true)
    if [ -n "$running" ]; then
        say "using the pcscd already running (pid $running); pcscd-down will leave it alone"
    else
        [ -w /run ] || [ -w /run/pcscd ] || die "cannot start pcscd: /run is not writable (not root?)"
        # A socket left by a pcscd that died would make the new one refuse to start.
        [ -S /run/pcscd/pcscd.comm ] && rm -f /run/pcscd/pcscd.comm
        wait_for_ports
        : >"$logfile"
        # pcscd must not inherit the lock, or the next caller would wait for it
        # to exit.
        pcscd --foreground </dev/null >>"$logfile" 2>&1 9>&- &
        started_pid=$!
        started_now=yes
        printf 'pid=%s\nstarted_by=pcscd-up\n' "$started_pid" >"$state"
        sleep 0.2
        pid_alive "$started_pid" || { rm -f "$state"; die "pcscd exited at once; see $logfile"; }
        say "started pcscd (pid $started_pid), output in $logfile, state in $state"
    fi
fi

# --- readers ---------------------------------------------------------------
deadline=$(($(date +%s) + timeout))
if [ -z "$vcard" ] || [ ! -x "$vcard" ]; then
    say "warning: no twn4-vcard to list readers with; waiting for the pcscd socket only"
    until [ -S /run/pcscd/pcscd.comm ]; do
        [ "$(date +%s)" -lt "$deadline" ] || die "pcscd socket /run/pcscd/pcscd.comm did not appear within ${timeout}s"
        sleep 0.2
    done
    say "pcscd is up"
    exit 0
fi

while :; do
    readers=$("$vcard" --list-readers 2>/dev/null || true)
    count=$(printf '%s\n' "$readers" | grep -c '^Virtual PCD' || true)
    [ "$count" -ge 2 ] && break
    if [ "$(date +%s)" -ge "$deadline" ]; then
        echo "pcscd-up: sockets on ports $port/$((port + 1)) now:" >&2
        port_holders | sed 's/^/    /' >&2
        if [ -n "$started_now" ] && [ -s "$logfile" ]; then
            echo "pcscd-up: the end of $logfile:" >&2
            tail -n 20 "$logfile" | sed 's/^/    /' >&2
        fi
        die "the two vpcd readers did not appear within ${timeout}s (listed: ${readers:-none}); see $logfile"
    fi
    sleep 0.2
done
say "readers ready:"
printf '%s\n' "$readers" | sed 's/^/    /'
