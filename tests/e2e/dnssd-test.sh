#!/usr/bin/env bash
# End-to-end test of the DNS-SD advertisement against real avahi-daemon and dbus-daemon processes.
#
#   dnssd-test.sh EXPECTED_NAME -- COMMAND [ARGS...]
#
# COMMAND is a program that advertises EXPECTED_NAME as "_intercom._udp" on port 50505 (the
# server itself, or tests/e2e/advertise_probe). Each instance runs in a fresh empty directory and
# is stopped with SIGTERM; it must then exit with status 0 or die of the signal (143).
#
# Everything runs inside new network, mount and PID namespaces: the daemons see only loopback, or
# in the last step a veth pair between two namespaces made here, never a real interface. Their
# bus sockets, configuration and logs live in a temporary directory; tmpfs mounts cover /run and
# /etc/avahi/services so that nothing of the host's is read or written. When the test ends, the
# PID namespace takes every process it started with it.
#
# Steps:
#   1. advertised: with the daemons up, the service resolves with the name, port 50505 and no TXT
#      data, and is withdrawn when the program stops;
#   2. late daemon: started with neither bus nor daemon, the program warns once and keeps running;
#      it is advertised once they appear, and again after the daemon restarts (a second warning);
#   3. local collision: another program on the same host holds the name -> "NAME #2";
#   4. network collision: two hosts (namespaces joined by a veth pair) with the same name -> the
#      later one warns and takes "NAME #2"; both names are visible.
#
# Exit status: 0 pass, 1 fail, 77 skipped (not root, or namespaces unavailable).

set -euo pipefail

readonly SERVICE_TYPE=_intercom._udp
readonly SERVICE_PORT=50505
readonly OTHER_PORT=50506  # of the rival on the same host: other records, so a real conflict
readonly WAIT_SECONDS=15   # the bound of every wait for something to appear
readonly RETRY_SECONDS=3   # how often the advertiser retries while the system bus is missing
readonly TOTAL_SECONDS=200

say() { printf 'dnssd-test: %s\n' "$*"; }

usage() {
  echo "usage: $0 EXPECTED_NAME -- COMMAND [ARGS...]" >&2
  exit 2
}

# ---------------------------------------------------------------------------------------------
# Outside: check the preconditions, then run this script again inside the new namespaces.
if [[ "${1:-}" != --inner ]]; then
  [[ $# -ge 3 && "$2" == -- ]] || usage
  if [[ $(id -u) -ne 0 ]]; then
    say "SKIP: needs root for network namespaces"
    exit 77
  fi
  if ! unshare --net --mount --pid --fork --mount-proc true 2>/dev/null; then
    say "SKIP: cannot create namespaces (unshare failed)"
    exit 77
  fi
  for tool in avahi-daemon avahi-browse avahi-publish dbus-daemon ip nsenter timeout; do
    command -v "$tool" >/dev/null || { say "FAIL: $tool is not installed"; exit 1; }
  done
  expected=$1
  shift 2
  # Absolute, since every instance runs in a directory of its own.
  if ! program=$(command -v "$1") || ! program=$(realpath -e "$program"); then
    say "FAIL: no such program: $1"
    exit 1
  fi
  shift
  work=$(mktemp -d "${TMPDIR:-/tmp}/parlavox-dnssd.XXXXXX")
  trap 'rm -rf "$work"' EXIT
  status=0
  # --kill-child: should the bound be hit, the namespace's first process dies and the kernel
  # ends all the others with it.
  timeout --kill-after=5 "$TOTAL_SECONDS" \
    unshare --net --mount --propagation private --pid --fork --mount-proc --kill-child \
    "$0" --inner "$work" "$expected" "$program" "$@" || status=$?
  if [[ $status -eq 124 || $status -eq 137 ]]; then
    say "FAIL: did not finish within ${TOTAL_SECONDS}s"
    status=1
  fi
  exit "$status"
fi

# ---------------------------------------------------------------------------------------------
# Inside: PID 1 of a new PID namespace, in new network and mount namespaces.
shift
readonly work=$1 expected=$2
shift 2
readonly command=("$@")

declare -A pids=() # label -> pid of everything started, for stopping and clean-up
site_b_holder=""   # pid whose namespaces are site B's (the second host of step 4)

cleanup() {
  local label
  for label in "${!pids[@]}"; do
    kill -TERM "${pids[$label]}" 2>/dev/null || true
  done
  sleep 0.5
  for label in "${!pids[@]}"; do
    kill -KILL "${pids[$label]}" 2>/dev/null || true
  done
  [[ -z "$site_b_holder" ]] || kill -KILL "$site_b_holder" 2>/dev/null || true
}
trap cleanup EXIT

dump_logs() {
  local file
  for file in "$work"/*.log; do
    [[ -e "$file" ]] || continue
    printf '%s\n' "----- ${file##*/}"
    cat "$file"
  done
  printf '%s\n' "-----"
}

fail() {
  local label
  say "FAIL: $*"
  for label in "${!pids[@]}"; do
    kill -0 "${pids[$label]}" 2>/dev/null || say "($label is no longer running)"
  done
  dump_logs
  exit 1
}

# Sites are hosts: A is this script's own namespaces, B the second host of step 4. Each has its
# own system bus.
bus_address() { printf 'unix:path=%s' "$work/bus-$1.socket"; }

# in_site SITE COMMAND...: runs COMMAND in the site's namespaces, with the site's bus.
in_site() {
  local site=$1
  shift
  if [[ "$site" == A ]]; then
    DBUS_SYSTEM_BUS_ADDRESS=$(bus_address A) "$@"
  else
    DBUS_SYSTEM_BUS_ADDRESS=$(bus_address B) nsenter --target "$site_b_holder" --net --mount "$@"
  fi
}

# spawn LABEL SITE DIRECTORY COMMAND...: starts COMMAND in the background as in_site does, in
# DIRECTORY, output to LABEL.log; its pid (the command's own, for signals) goes into `pids`.
spawn() {
  local label=$1 site=$2 directory=$3
  shift 3
  (
    cd "$directory"
    export DBUS_SYSTEM_BUS_ADDRESS
    DBUS_SYSTEM_BUS_ADDRESS=$(bus_address "$site")
    if [[ "$site" == A ]]; then
      exec "$@"
    else
      # --wd: entering a mount namespace would otherwise leave the command in "/".
      exec nsenter --target "$site_b_holder" --net --mount --wd="$directory" "$@"
    fi
  ) >>"$work/$label.log" 2>&1 &
  pids[$label]=$!
}

# The form avahi-browse -p prints a name in: letters, digits, "-" and "_" as they are, "." and
# "\" after a backslash, every other byte as a backslash and three decimal digits.
escape_label() {
  local LC_ALL=C
  local text=$1 out="" char code i
  for ((i = 0; i < ${#text}; i++)); do
    char=${text:i:1}
    case "$char" in
      [A-Za-z0-9_-]) out+=$char ;;
      . | \\) out+="\\$char" ;;
      *)
        printf -v code '%d' "'$char"
        printf -v char '\\%03d' $(((code + 256) % 256))
        out+=$char
        ;;
    esac
  done
  printf '%s' "$out"
}

# Polls until `check ARGS...` succeeds or WAIT_SECONDS pass.
wait_until() {
  local deadline=$((SECONDS + WAIT_SECONDS))
  until "$@"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.2
  done
}

alive() { kill -0 "${pids[$1]}" 2>/dev/null; }

# ---- daemons --------------------------------------------------------------------------------

start_bus() {
  local site=$1 socket="$work/bus-$1.socket"
  # A system bus with the policy avahi-daemon needs: root may own org.freedesktop.Avahi, anyone
  # may call it and receive its signals.
  cat >"$work/bus-$site.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.Avahi"/>
    <allow receive_sender="org.freedesktop.Avahi"/>
  </policy>
  <policy user="root">
    <allow own="org.freedesktop.Avahi"/>
  </policy>
</busconfig>
EOF
  spawn "dbus-$site" "$site" "$work" \
    dbus-daemon --nofork --nosyslog --config-file="$work/bus-$site.conf"
  wait_until test -S "$socket" || fail "dbus-daemon of site $site did not come up"
}

# start_avahi SITE INTERFACE: a daemon that uses INTERFACE only, with host name pvx-SITE.
start_avahi() {
  local site=$1 interface=$2 log="$work/avahi-$1.log"
  cat >"$work/avahi-$site.conf" <<EOF
[server]
host-name=pvx-${site,,}
use-ipv4=yes
use-ipv6=yes
allow-interfaces=$interface
enable-dbus=yes
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
EOF
  local before
  before=$(started_count "$log")
  spawn "avahi-$site" "$site" "$work" \
    avahi-daemon --no-drop-root --no-chroot --no-rlimits -f "$work/avahi-$site.conf"
  wait_until started_more_than "$log" "$before" || fail "avahi-daemon of site $site did not start"
}

started_count() { grep -c 'Server startup complete' "$1" 2>/dev/null || true; }
started_more_than() { [[ $(started_count "$1") -gt $2 ]]; }

# stop LABEL: SIGTERM, then SIGKILL after 5 s. Sets `stopped_status` to the exit status.
stop() {
  local label=$1 pid=${pids[$1]} i
  kill -TERM "$pid" 2>/dev/null || true
  for ((i = 0; i < 50; i++)); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null || true
  stopped_status=0
  wait "$pid" 2>/dev/null || stopped_status=$?
  unset "pids[$label]"
}

stop_daemons() {
  local site=$1
  [[ -z "${pids[avahi-$site]:-}" ]] || stop "avahi-$site"
  [[ -z "${pids[dbus-$site]:-}" ]] || stop "dbus-$site"
}

# ---- the program under test -----------------------------------------------------------------

# start_program SITE LABEL: one instance of COMMAND in an empty directory of its own.
start_program() {
  local site=$1 label=$2
  mkdir "$work/run-$label"
  spawn "$label" "$site" "$work/run-$label" "${command[@]}"
}

stop_program() {
  local label=$1
  alive "$label" || fail "$label stopped by itself"
  stop "$label"
  # 143: killed by SIGTERM, for a program without a stop operation; 0: stopped cleanly.
  [[ $stopped_status -eq 0 || $stopped_status -eq 143 ]] ||
    fail "$label exited with status $stopped_status when stopped"
}

count_warnings() { # LABEL PATTERN: the number of "⚠️  " lines matching the extended regex
  grep -cE "^⚠️  .*($2)" "$work/$1.log" || true
}
warnings_at_least() { [[ $(count_warnings "$1" "$2") -ge $3 ]]; } # LABEL PATTERN N

has_collision_warning() { # LABEL TAKEN_NAME NEW_NAME
  grep -F -- "\"$2\"" "$work/$1.log" | grep -F -- "\"$3\"" | grep -q '^⚠️  '
}

# ---- browsing -------------------------------------------------------------------------------

browse() { # SITE: resolved services of our type, in avahi-browse's parsable form
  in_site "$1" timeout 10 avahi-browse --resolve --parsable --terminate "$SERVICE_TYPE" \
    >"$work/browse.log" 2>&1 || true
}

# resolved SITE NAME PORT [HOST]: a resolved entry with that name and port and no TXT data.
resolved() {
  browse "$1"
  NAME=$(escape_label "$2") PORT=$3 HOST=${4:-} awk -F';' '
    $1 == "=" && $4 == ENVIRON["NAME"] && $9 == ENVIRON["PORT"] && $10 == "" &&
      (ENVIRON["HOST"] == "" || $7 == ENVIRON["HOST"]) { found = 1 }
    END { exit !found }' "$work/browse.log"
}

gone() { # SITE NAME
  browse "$1"
  NAME=$(escape_label "$2") awk -F';' '$4 == ENVIRON["NAME"] { found = 1 } END { exit found }' \
    "$work/browse.log"
}

expect_advertised() { # SITE NAME PORT [HOST]
  wait_until resolved "$@" || fail "\"$2\" on port $3 ${4:+from $4 }not seen by avahi-browse"
  say "ok: \"$2\" resolves on port $3 ${4:+from $4 }without TXT data"
}

# ---- the steps ------------------------------------------------------------------------------

ip link set lo up
ip link set lo multicast on
mount -t tmpfs -o mode=0755 tmpfs /run
mkdir /run/avahi-daemon
[[ ! -d /etc/avahi/services ]] || mount -t tmpfs tmpfs /etc/avahi/services

readonly collided="$expected #2"

step_advertised() {
  say "step 1: advertised while the daemons run"
  start_bus A
  start_avahi A lo
  start_program A first
  expect_advertised A "$expected" "$SERVICE_PORT"
  [[ $(count_warnings first 'Bonjour|taken') -eq 0 ]] || fail "unexpected warning from first"
  stop_program first
  wait_until gone A "$expected" || fail "\"$expected\" still advertised after the program stopped"
  say "ok: withdrawn when the program stopped"
  stop_daemons A
}

step_late_daemon() {
  say "step 2: started with neither bus nor daemon"
  start_program A late
  wait_until warnings_at_least late unavailable 1 ||
    fail "no \"unavailable\" warning without a bus"
  # Two retries later: still the one warning, still serving.
  sleep $((2 * RETRY_SECONDS + 1))
  alive late || fail "the program ended without a bus"
  [[ $(count_warnings late unavailable) -eq 1 ]] || fail "the warning was repeated"
  say "ok: one warning, still running"

  start_bus A
  sleep $((RETRY_SECONDS + 1)) # the retry now finds the bus, but no daemon: same outage
  [[ $(count_warnings late unavailable) -eq 1 ]] || fail "warned again when the bus appeared"
  start_avahi A lo
  expect_advertised A "$expected" "$SERVICE_PORT"

  say "step 2b: the daemon restarts"
  stop avahi-A
  wait_until warnings_at_least late unavailable 2 ||
    fail "no warning when the daemon went away"
  alive late || fail "the program ended when the daemon went away"
  start_avahi A lo
  expect_advertised A "$expected" "$SERVICE_PORT"
  [[ $(count_warnings late unavailable) -eq 2 ]] || fail "one warning per outage expected"
  [[ $(count_warnings late 'taken|failed') -eq 0 ]] || fail "unexpected warning from late"
  stop_program late
  stop_daemons A
}

step_local_collision() {
  say "step 3: the name is taken by another program on this host"
  start_bus A
  start_avahi A lo
  spawn rival A "$work" avahi-publish --service "$expected" "$SERVICE_TYPE" "$OTHER_PORT"
  wait_until grep -q '^Established' "$work/rival.log" || fail "avahi-publish did not register"
  start_program A second
  wait_until has_collision_warning second "$expected" "$collided" ||
    fail "no warning about the taken name"
  expect_advertised A "$collided" "$SERVICE_PORT"
  expect_advertised A "$expected" "$OTHER_PORT"
  stop_program second
  stop rival
  stop_daemons A
}

step_network_collision() {
  say "step 4: the name is taken by another host"
  unshare --net --mount --propagation private sleep infinity &
  site_b_holder=$!
  other_namespace() { [[ $(readlink "/proc/$site_b_holder/ns/net") != $(readlink /proc/self/ns/net) ]]; }
  wait_until other_namespace || fail "no namespace for the second host"
  in_site B mount -t tmpfs -o mode=0755 tmpfs /run
  in_site B mkdir /run/avahi-daemon
  # 192.0.2.0/24 is reserved for documentation: it can never be anybody's real network.
  ip link add pvx-a type veth peer name pvx-b netns "$site_b_holder"
  ip address add 192.0.2.1/24 dev pvx-a
  ip link set pvx-a up
  in_site B ip link set lo up
  in_site B ip address add 192.0.2.2/24 dev pvx-b
  in_site B ip link set pvx-b up

  start_bus A
  start_bus B
  start_avahi A pvx-a
  start_avahi B pvx-b
  start_program A host-a
  expect_advertised A "$expected" "$SERVICE_PORT" pvx-a.local
  start_program B host-b
  wait_until has_collision_warning host-b "$expected" "$collided" ||
    fail "the second host did not warn about the taken name"
  expect_advertised A "$collided" "$SERVICE_PORT" pvx-b.local
  expect_advertised A "$expected" "$SERVICE_PORT" pvx-a.local
  expect_advertised B "$collided" "$SERVICE_PORT" pvx-b.local
  [[ $(count_warnings host-a 'Bonjour|taken') -eq 0 ]] || fail "the first host warned"
  stop_program host-b
  stop_program host-a
  stop_daemons A
  stop_daemons B
}

step_advertised
step_late_daemon
step_local_collision
step_network_collision
for label in first late second host-a host-b; do
  say "console of $label:"
  sed 's/^/    /' "$work/$label.log"
done
say "PASS"
