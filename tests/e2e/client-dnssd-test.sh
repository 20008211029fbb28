#!/usr/bin/env bash
# End-to-end test of parlavox-client's server discovery against real avahi-daemon and dbus-daemon
# processes, in the sandbox of avahi-sandbox.sh, with only loopback. (Without any system bus is
# covered by the client's end-to-end tests, which need no root.)
#
#   client-dnssd-test.sh PARLAVOX PARLAVOX_CLIENT
#
# Steps:
#   1. a system bus, but no daemon on it: "info" without a host says no server was found, with
#      status 1;
#   2. a daemon, but no server: the same, saying that nothing advertises the service;
#   3. a server: "info" without a host says which server it found and prints its show.
#
# Exit status: 0 pass, 1 fail, 77 skipped (not root, or namespaces unavailable).

set -euo pipefail

SANDBOX_NAME="client-dnssd-test"
# shellcheck source=avahi-sandbox.sh
source "$(dirname "$0")/avahi-sandbox.sh"

if [[ "${1:-}" != --inner ]]; then
  if [[ $# -ne 2 ]]; then
    echo "usage: $0 PARLAVOX PARLAVOX_CLIENT" >&2
    exit 2
  fi
  sandbox_run 100 -- "$(realpath -e "$1")" "$(realpath -e "$2")"
fi
sandbox_inside "$2"
readonly server=$3 client=$4
readonly hint="(give the server's address: parlavox-client HOST ...)"

# expect_info LOG STATUS LINE: "parlavox-client info" ends with STATUS and prints LINE.
expect_info() {
  local status=0
  (cd "$work" && in_site A timeout 20 "$client" info) >"$work/$1" 2>"$work/$1.stderr" || status=$?
  [[ ! -s "$work/$1.stderr" ]] || fail "parlavox-client wrote to standard error"
  [[ $status -eq $2 ]] || fail "status $status, not $2: $(cat "$work/$1")"
  grep -qxF -- "$3" "$work/$1" || fail "no line \"$3\" in: $(cat "$work/$1")"
}

say "step 1: a system bus, but no daemon on it"
start_bus A
expect_info no-daemon.log 1 "❌ No server found: there is no Avahi daemon to ask $hint"
say "ok: no daemon on the bus, no server found"

say "step 2: a daemon, but no server"
start_avahi A lo
expect_info none.log 1 "❌ No server found: nothing on this network advertises $SERVICE_TYPE $hint"
say "ok: nothing advertised, no server found"

say "step 3: a server"
mkdir "$work/server"
spawn server A "$work/server" "$server"
expect_advertised A Parlavox 50505
expect_info found.log 0 '🎭 The show at "Parlavox"'
head -n 1 "$work/found.log" |
  grep -qE '^🔎 Found "Parlavox" at pvx-a\.local \((127\.0\.0\.1|::1)\), port 50505$' ||
  fail "did not say which server it found: $(cat "$work/found.log")"
grep -qx '   Channels: Main, Tech, Backstage, Green Room' "$work/found.log" ||
  fail "no channels: $(cat "$work/found.log")"
say "ok: found the server and printed its show"
sed 's/^/    /' "$work/found.log"
say "PASS"
