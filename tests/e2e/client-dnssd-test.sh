#!/usr/bin/env bash
# End-to-end test of parlavox-client's server discovery against real avahi-daemon and dbus-daemon
# processes.
#
#   client-dnssd-test.sh PARLAVOX PARLAVOX_CLIENT
#
# Everything runs inside new network, mount and PID namespaces with only loopback: the daemons'
# bus socket, configuration and logs live in a temporary directory, and tmpfs mounts cover /run and
# /etc/avahi/services so that nothing of the host's is read or written.
#
# Steps:
#   1. no daemon (no system bus, then a bus without the daemon): "info" without a host says no
#      server was found, with status 1;
#   2. a daemon, but no server: the same, saying that nothing advertises the service;
#   3. a server: "info" without a host says which server it found and prints its show.
#
# Exit status: 0 pass, 1 fail, 77 skipped (not root, or namespaces unavailable).

set -euo pipefail

readonly SERVICE_TYPE=_intercom._udp
readonly WAIT_SECONDS=15
readonly TOTAL_SECONDS=100

say() { printf 'client-dnssd-test: %s\n' "$*"; }

if [[ "${1:-}" != --inner ]]; then
  if [[ $# -ne 2 ]]; then
    echo "usage: $0 PARLAVOX PARLAVOX_CLIENT" >&2
    exit 2
  fi
  if [[ $(id -u) -ne 0 ]]; then
    say "SKIP: needs root for network namespaces"
    exit 77
  fi
  if ! unshare --net --mount --pid --fork --mount-proc true 2>/dev/null; then
    say "SKIP: cannot create namespaces (unshare failed)"
    exit 77
  fi
  for tool in avahi-daemon avahi-browse dbus-daemon ip timeout; do
    command -v "$tool" >/dev/null || { say "FAIL: $tool is not installed"; exit 1; }
  done
  server=$(realpath -e "$1")
  client=$(realpath -e "$2")
  work=$(mktemp -d "${TMPDIR:-/tmp}/parlavox-client-dnssd.XXXXXX")
  trap 'rm -rf "$work"' EXIT
  status=0
  timeout --kill-after=5 "$TOTAL_SECONDS" \
    unshare --net --mount --propagation private --pid --fork --mount-proc --kill-child \
    "$0" --inner "$work" "$server" "$client" || status=$?
  if [[ $status -eq 124 || $status -eq 137 ]]; then
    say "FAIL: did not finish within ${TOTAL_SECONDS}s"
    status=1
  fi
  exit "$status"
fi

# Inside: PID 1 of a new PID namespace, in new network and mount namespaces.
readonly work=$2 server=$3 client=$4
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/bus.socket"

pids=()
cleanup() {
  local pid
  for pid in "${pids[@]}"; do
    kill -TERM "$pid" 2>/dev/null || true
  done
}
trap cleanup EXIT

fail() {
  say "FAIL: $*"
  local file
  for file in "$work"/*.log; do
    [[ -e "$file" ]] || continue
    printf '%s\n' "----- ${file##*/}"
    cat "$file"
  done
  exit 1
}

wait_until() {
  local deadline=$((SECONDS + WAIT_SECONDS))
  until "$@"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.2
  done
}

# run_client LOG ARGS...: parlavox-client in the work directory; sets client_status.
run_client() {
  local log=$1
  shift
  client_status=0
  (cd "$work" && timeout 20 "$client" "$@") >"$work/$log" 2>"$work/$log.stderr" || client_status=$?
  [[ ! -s "$work/$log.stderr" ]] || fail "parlavox-client wrote to standard error"
}

ip link set lo up
ip link set lo multicast on
mount -t tmpfs -o mode=0755 tmpfs /run
mkdir /run/avahi-daemon
[[ ! -d /etc/avahi/services ]] || mount -t tmpfs tmpfs /etc/avahi/services

say "step 1: no daemon"
run_client no-daemon.log info
[[ $client_status -eq 1 ]] || fail "status $client_status without a daemon"
grep -qx "❌ No server found: there is no Avahi daemon to ask (give the server's address: parlavox-client HOST ...)" \
  "$work/no-daemon.log" || fail "unexpected output without a daemon: $(cat "$work/no-daemon.log")"
say "ok: no daemon, no server found"

cat >"$work/bus.conf" <<XML
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>$DBUS_SYSTEM_BUS_ADDRESS</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
</busconfig>
XML
dbus-daemon --nofork --nosyslog --config-file="$work/bus.conf" >"$work/dbus.log" 2>&1 &
pids+=($!)
wait_until test -S "$work/bus.socket" || fail "dbus-daemon did not come up"

say "step 1b: a system bus, but no daemon on it"
run_client no-daemon-on-bus.log info
[[ $client_status -eq 1 ]] || fail "status $client_status without a daemon on the bus"
grep -qx "❌ No server found: there is no Avahi daemon to ask (give the server's address: parlavox-client HOST ...)" \
  "$work/no-daemon-on-bus.log" || fail "unexpected output without a daemon on the bus: $(cat "$work/no-daemon-on-bus.log")"
say "ok: no daemon on the bus, no server found"

cat >"$work/avahi.conf" <<CONF
[server]
host-name=pvx-client-test
use-ipv4=yes
use-ipv6=yes
allow-interfaces=lo
enable-dbus=yes
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
CONF
avahi-daemon --no-drop-root --no-chroot --no-rlimits -f "$work/avahi.conf" >"$work/avahi.log" 2>&1 &
pids+=($!)
wait_until grep -q 'Server startup complete' "$work/avahi.log" || fail "avahi-daemon did not start"

say "step 2: a daemon, but no server"
run_client none.log info
[[ $client_status -eq 1 ]] || fail "status $client_status with no server"
grep -qx "❌ No server found: nothing on this network advertises $SERVICE_TYPE (give the server's address: parlavox-client HOST ...)" \
  "$work/none.log" || fail "unexpected output with no server: $(cat "$work/none.log")"
say "ok: nothing advertised, no server found"

say "step 3: a server"
mkdir "$work/server"
(cd "$work/server" && exec "$server") >"$work/server.log" 2>&1 &
pids+=($!)
advertised() {
  timeout 10 avahi-browse --resolve --parsable --terminate "$SERVICE_TYPE" 2>/dev/null |
    grep -q '^=.*;Parlavox;.*;50505;'
}
wait_until advertised || fail "the server was not advertised"
run_client found.log info
[[ $client_status -eq 0 ]] || fail "status $client_status with a server: $(cat "$work/found.log")"
head -n 1 "$work/found.log" | grep -qE '^🔎 Found "Parlavox" at pvx-client-test\.local \((127\.0\.0\.1|::1)\), port 50505$' ||
  fail "did not say which server it found: $(cat "$work/found.log")"
grep -qx '🎭 The show at "Parlavox"' "$work/found.log" || fail "no show: $(cat "$work/found.log")"
grep -qx '   Channels: Main, Tech, Backstage, Green Room' "$work/found.log" ||
  fail "no channels: $(cat "$work/found.log")"
say "ok: found the server and printed its show"
sed 's/^/    /' "$work/found.log"
say "PASS"
