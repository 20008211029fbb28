#!/usr/bin/env bash
# End-to-end test of the DNS-SD advertisement against real avahi-daemon and dbus-daemon processes,
# in the sandbox of avahi-sandbox.sh.
#
#   dnssd-test.sh EXPECTED_NAME -- COMMAND [ARGS...]
#
# COMMAND is a program that advertises EXPECTED_NAME as "_intercom._udp" on port 50505 (the
# server itself, or tests/e2e/advertise_probe). Each instance runs in a fresh empty directory and
# is stopped with SIGTERM; it must then exit with status 0 or die of the signal (143).
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

SANDBOX_NAME="dnssd-test"
# shellcheck source=avahi-sandbox.sh
source "$(dirname "$0")/avahi-sandbox.sh"

readonly SERVICE_PORT=50505
readonly OTHER_PORT=50506 # of the rival on the same host: other records, so a real conflict
readonly RETRY_SECONDS=3  # how often the advertiser retries while the system bus is missing

if [[ "${1:-}" != --inner ]]; then
  if [[ $# -lt 3 || "$2" != -- ]]; then
    echo "usage: $0 EXPECTED_NAME -- COMMAND [ARGS...]" >&2
    exit 2
  fi
  expected=$1
  shift 2
  # Absolute, since every instance runs in a directory of its own.
  if ! program=$(command -v "$1") || ! program=$(realpath -e "$program"); then
    say "FAIL: no such program: $1"
    exit 1
  fi
  shift
  sandbox_run 200 avahi-publish nsenter -- "$expected" "$program" "$@"
fi
sandbox_inside "$2"
shift 2
readonly expected=$1
shift
readonly command=("$@")
readonly collided="$expected #2"

# start_program SITE LABEL: one instance of COMMAND in an empty directory of its own.
start_program() {
  mkdir "$work/run-$2"
  spawn "$2" "$1" "$work/run-$2" "${command[@]}"
}

stop_program() { # LABEL
  alive "$1" || fail "$1 stopped by itself"
  stop "$1"
  # 143: killed by SIGTERM, for a program without a stop operation; 0: stopped cleanly.
  [[ $stopped_status -eq 0 || $stopped_status -eq 143 ]] ||
    fail "$1 exited with status $stopped_status when stopped"
}

count_warnings() { # LABEL PATTERN: the number of "⚠️  " lines matching the extended regex
  grep -cE "^⚠️  .*($2)" "$work/$1.log" || true
}
warnings_at_least() { [[ $(count_warnings "$1" "$2") -ge $3 ]]; } # LABEL PATTERN N

has_collision_warning() { # LABEL TAKEN_NAME NEW_NAME
  grep -F -- "\"$2\"" "$work/$1.log" | grep -F -- "\"$3\"" | grep -q '^⚠️  '
}

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
  site_pid[B]=$!
  other_namespace() { [[ $(readlink "/proc/${site_pid[B]}/ns/net") != $(readlink /proc/self/ns/net) ]]; }
  wait_until other_namespace || fail "no namespace for the second host"
  in_site B mount -t tmpfs -o mode=0755 tmpfs /run
  in_site B mkdir /run/avahi-daemon
  # 192.0.2.0/24 is reserved for documentation: it can never be anybody's real network.
  ip link add pvx-a type veth peer name pvx-b netns "${site_pid[B]}"
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
