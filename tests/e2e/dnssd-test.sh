#!/usr/bin/env bash
# End-to-end tests of DNS-SD against real avahi-daemon and dbus-daemon processes. Run as root, the
# script runs itself again inside new network, mount and PID namespaces: the daemons there see only
# loopback, or veth pairs made here, never a real interface; their sockets, configuration and logs
# live in a scratch directory; tmpfs covers /run and /etc/avahi/services. When the script ends, the
# PID namespace takes every process it started with it. A "site" is a host: A is the script's own
# namespaces, B those of a second process; each site has its own system bus.
#
#   dnssd-test.sh advertise NAME -- COMMAND [ARGS...]
#     COMMAND (the server) advertises NAME as _intercom._udp on port 50505. It runs in an empty
#     directory and must end with status 0 or 143 on SIGTERM.
#     1. It resolves with that name and port and no TXT data, and is withdrawn when it stops.
#     2. Started with neither bus nor daemon, it warns once, says it listens without claiming to be
#        advertised, and keeps running; it is advertised once they appear; a daemon restart costs
#        one more warning and it is advertised again. Each time it is advertised after it was not,
#        one "✅ ... Bonjour" line says so; none without an outage.
#     3. Another program on this host holds the name: it warns and takes "NAME #2".
#     4. Another host (site B, over a veth pair) holds the name: the same, seen from both hosts.
#   dnssd-test.sh client PARLAVOX PARLAVOX_CLIENT
#     "parlavox-client info" without a host finds no server (status 1) on a bus without a daemon,
#     and with a daemon but nothing advertised; with the server running it names the server it
#     found and prints its show.
#
# Exit status: 0 pass, 1 fail, 77 skipped (not root, or no namespaces).
set -euo pipefail

readonly TYPE=_intercom._udp
say() { printf 'dnssd-test: %s\n' "$*"; }

if [[ ${1:-} != --inner ]]; then
  [[ $(id -u) -eq 0 ]] || { say "SKIP: needs root for namespaces"; exit 77; }
  unshare --net --mount --pid --fork --mount-proc true 2>/dev/null ||
    { say "SKIP: cannot create namespaces"; exit 77; }
  for tool in avahi-daemon avahi-browse avahi-publish dbus-daemon ip nsenter timeout; do
    command -v "$tool" >/dev/null || { say "FAIL: $tool is not installed"; exit 1; }
  done
  # Programs by absolute path: each instance runs in a directory of its own.
  args=("$@")
  if [[ ${1:-} == client && $# -eq 3 ]]; then
    args[1]=$(realpath -e "$2")
    args[2]=$(realpath -e "$3")
  elif [[ ${1:-} == advertise && $# -ge 4 && $3 == -- ]]; then
    args[3]=$(realpath -e "$(command -v "$4")")
  else
    echo "usage: $0 advertise NAME -- COMMAND [ARGS...] | client PARLAVOX PARLAVOX_CLIENT" >&2
    exit 2
  fi
  work=$(mktemp -d "${TMPDIR:-/tmp}/parlavox-dnssd.XXXXXX")
  trap 'rm -rf "$work"' EXIT
  # --kill-child: should the bound be hit, the namespace's first process dies and takes the rest.
  status=0
  timeout --kill-after=5 200 unshare --net --mount --propagation private --pid --fork \
    --mount-proc --kill-child "$0" --inner "$work" "${args[@]}" || status=$?
  [[ $status -ne 124 && $status -ne 137 ]] || { say "FAIL: did not finish within 200 s"; status=1; }
  exit "$status"
fi

work=$2 mode=$3
shift 3
ip link set lo up
ip link set lo multicast on
mount -t tmpfs -o mode=0755 tmpfs /run
mkdir /run/avahi-daemon
[[ ! -d /etc/avahi/services ]] || mount -t tmpfs tmpfs /etc/avahi/services
declare -A pids=()           # label -> pid of each program started, output in $work/label.log
declare -A site_pid=([A]=$$) # site -> a process in the site's namespaces

fail() {
  say "FAIL: $*"
  tail -n +1 "$work"/*.log
  exit 1
}

wait_until() { # COMMAND...: polls until it succeeds, for at most 15 s
  local deadline=$((SECONDS + 15))
  until "$@"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.2
  done
}

# on SITE DIRECTORY COMMAND...: becomes COMMAND, in the site's namespaces and DIRECTORY, with the
# site's bus. Run it in a subshell or in the background.
on() {
  local site=$1 directory=$2
  shift 2
  DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/bus-$site.socket" \
    exec nsenter --target "${site_pid[$site]}" --net --mount --wd="$directory" "$@"
}

spawn() { # LABEL SITE DIRECTORY COMMAND...
  local label=$1
  shift
  on "$@" >>"$work/$label.log" 2>&1 &
  pids[$label]=$!
}

# stop LABEL: SIGTERM, SIGKILL after 5 s; its exit status goes into `stopped`.
stop() {
  local pid=${pids[$1]} i
  kill -TERM "$pid" 2>/dev/null || true
  for ((i = 0; i < 50; i++)); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null || true
  stopped=0
  wait "$pid" 2>/dev/null || stopped=$?
  unset "pids[$1]"
}

start_bus() { # SITE: a system bus that lets anyone own and call anything
  printf '%s\n' "<busconfig><listen>unix:path=$work/bus-$1.socket</listen>" \
    '<policy context="default"><allow user="*"/><allow own="*"/>' \
    '<allow send_destination="*"/><allow receive_sender="*"/></policy></busconfig>' \
    >"$work/bus-$1.conf"
  spawn "dbus-$1" "$1" "$work" dbus-daemon --nofork --nosyslog --config-file="$work/bus-$1.conf"
  wait_until test -S "$work/bus-$1.socket" || fail "dbus-daemon of site $1 did not come up"
}

start_avahi() { # SITE INTERFACE: a daemon on INTERFACE only, with host name pvx-SITE
  printf '%s\n' "[server]" "host-name=pvx-${1,,}" "allow-interfaces=$2" "[wide-area]" \
    "enable-wide-area=no" "[publish]" "publish-hinfo=no" "publish-workstation=no" \
    >"$work/avahi-$1.conf"
  # A log of its own for every start, so that only this start's line counts.
  [[ ! -e $work/avahi-$1.log ]] || mv "$work/avahi-$1.log" "$work/avahi-$1.$SECONDS.log"
  spawn "avahi-$1" "$1" "$work" \
    avahi-daemon --no-drop-root --no-chroot --no-rlimits -f "$work/avahi-$1.conf"
  wait_until grep -q 'Server startup complete' "$work/avahi-$1.log" ||
    fail "avahi-daemon of site $1 did not start"
}

start_daemons() { # SITE INTERFACE
  start_bus "$1"
  start_avahi "$1" "$2"
}
stop_daemons() { # SITE
  stop "avahi-$1"
  stop "dbus-$1"
}

# NAME as avahi-browse --parsable writes it: letters, digits, "-" and "_" as they are, "." and "\"
# after a backslash, any other byte as a backslash and three decimal digits.
escaped() {
  local LC_ALL=C text=$1 char code i
  for ((i = 0; i < ${#text}; i++)); do
    char=${text:i:1}
    case $char in
      [A-Za-z0-9_-]) printf '%s' "$char" ;;
      [.\\]) printf '\\%s' "$char" ;;
      *) printf -v code '%d' "'$char" && printf '\\%03d' $(((code + 256) % 256)) ;;
    esac
  done
}

# seen SITE NAME [PORT [HOST]]: avahi-browse at SITE lists NAME; given PORT, resolved on that port
# (from HOST) with no TXT data.
seen() {
  (on "$1" "$work" timeout 10 avahi-browse --resolve --parsable --terminate "$TYPE") \
    >"$work/browse.log" 2>&1 || true
  NAME=$(escaped "$2") PORT=${3:-} HOST=${4:-} awk -F';' '
    $4 == ENVIRON["NAME"] && (ENVIRON["PORT"] == "" || $1 == "=" && $9 == ENVIRON["PORT"] &&
      $10 == "") && (ENVIRON["HOST"] == "" || $7 == ENVIRON["HOST"]) { found = 1 }
    END { exit !found }' "$work/browse.log"
}
gone() { ! seen "$@"; }

expect_advertised() { # SITE NAME PORT [HOST]
  wait_until seen "$@" || fail "\"$2\" on port $3 ${4:+from $4 }not resolved"
  say "ok: \"$2\" resolves on port $3 ${4:+from $4 }without TXT data"
}

if [[ $mode == client ]]; then
  readonly server=$1 client=$2 hint="(give the server's address: parlavox-client HOST ...)"
  expect_info() { # STATUS LINE: "parlavox-client info" ends with STATUS and prints LINE
    local status=0
    (on A "$work" timeout 20 "$client" info) >"$work/info.out" 2>"$work/info.err" || status=$?
    [[ ! -s $work/info.err ]] || fail "parlavox-client wrote to standard error"
    [[ $status -eq $1 ]] || fail "status $status, not $1: $(cat "$work/info.out")"
    grep -qxF -- "$2" "$work/info.out" || fail "no line \"$2\" in: $(cat "$work/info.out")"
  }
  start_bus A
  expect_info 1 "❌ No server found: there is no Avahi daemon to ask $hint"
  start_avahi A lo
  expect_info 1 "❌ No server found: nothing on this network advertises $TYPE $hint"
  say "ok: no server found without a daemon, nor without a server"
  mkdir "$work/server"
  spawn server A "$work/server" "$server"
  expect_advertised A Parlavox 50505
  expect_info 0 '🎭 The show at "Parlavox"'
  head -n 1 "$work/info.out" |
    grep -qE '^🔎 Found "Parlavox" at pvx-a\.local \((127\.0\.0\.1|::1)\), port 50505$' ||
    fail "did not say which server it found: $(cat "$work/info.out")"
  grep -qx '   Channels: Main, Tech, Backstage, Green Room' "$work/info.out" ||
    fail "no channels: $(cat "$work/info.out")"
  say "PASS: found the server and printed its show"
  exit 0
fi

readonly expected=$1 collided="$1 #2" port=50505 RETRY=3 # RETRY: period of retries without a bus
shift 2
readonly command=("$@")

start_program() { # SITE LABEL: an instance of COMMAND in an empty directory of its own
  mkdir "$work/run-$2"
  spawn "$2" "$1" "$work/run-$2" "${command[@]}"
}
stop_program() { # LABEL: it must still be running, and end with 0 or 143 (killed by SIGTERM)
  kill -0 "${pids[$1]}" 2>/dev/null || fail "$1 stopped by itself"
  stop "$1"
  [[ $stopped -eq 0 || $stopped -eq 143 ]] || fail "$1 exited with status $stopped when stopped"
}
warnings() { grep -cE "^⚠️  .*($2)" "$work/$1.log" || true; } # LABEL REGEX: how many
warned_taken() { grep -F "\"$expected\"" "$work/$1.log" | grep -F "\"$collided\"" | grep -q '^⚠️  '; }
unavailable_warned() { (($(warnings "$1" unavailable) >= $2)); } # LABEL TIMES
advertised_lines() { grep -c '^✅ .*Bonjour' "$work/$1.log" || true; } # LABEL: how many
advertised_said() { (($(advertised_lines "$1") >= $2)); }             # LABEL TIMES

say "step 1: advertised while the daemons run"
start_daemons A lo
start_program A first
expect_advertised A "$expected" $port
[[ $(warnings first 'Bonjour|taken') -eq 0 ]] || fail "unexpected warning from first"
wait_until advertised_said first 1 || fail "no \"✅\" line that says it is advertised"
[[ $(advertised_lines first) -eq 1 ]] || fail "more than one \"✅\" line that says it is advertised"
stop_program first
wait_until gone A "$expected" || fail "\"$expected\" still advertised after the program stopped"
stop_daemons A

say "step 2: started with neither bus nor daemon, which come later; then the daemon restarts"
start_program A late
wait_until unavailable_warned late 1 || fail "no \"unavailable\" warning without a bus"
wait_until grep -q '^✅ Listening on UDP port 50505$' "$work/late.log" ||
  fail "no line that says it listens, and only that"
sleep $((2 * RETRY + 1)) # two retries: still one warning
start_bus A
sleep $((RETRY + 1)) # a retry finds the bus but no daemon: the same outage
[[ $(warnings late unavailable) -eq 1 ]] || fail "warned again within one outage"
start_avahi A lo
expect_advertised A "$expected" $port
wait_until advertised_said late 1 || fail "no \"✅\" line once advertised after the outage"
stop avahi-A
wait_until unavailable_warned late 2 || fail "no warning when the daemon went away"
start_avahi A lo
expect_advertised A "$expected" $port
wait_until advertised_said late 2 || fail "no \"✅\" line once advertised after the restart"
[[ $(warnings late unavailable) -eq 2 ]] || fail "one warning per outage expected"
[[ $(advertised_lines late) -eq 2 ]] || fail "one \"✅\" line per recovery expected"
[[ $(warnings late 'taken|failed') -eq 0 ]] || fail "unexpected warning from late"
stop_program late
stop_daemons A

say "step 3: the name is taken by another program on this host"
start_daemons A lo
spawn rival A "$work" avahi-publish --service "$expected" "$TYPE" $((port + 1))
wait_until grep -q '^Established' "$work/rival.log" || fail "avahi-publish did not register"
start_program A second
wait_until warned_taken second || fail "no warning about the taken name"
expect_advertised A "$collided" $port
expect_advertised A "$expected" $((port + 1))
stop_program second
stop rival
stop_daemons A

say "step 4: the name is taken by another host"
unshare --net --mount --propagation private sleep infinity &
site_pid[B]=$!
other_host() { [[ $(readlink "/proc/${site_pid[B]}/ns/net") != $(readlink /proc/self/ns/net) ]]; }
wait_until other_host || fail "no namespace for the second host"
# 192.0.2.0/24 is reserved for documentation: nobody's real network.
ip link add pvx-a type veth peer name pvx-b netns "${site_pid[B]}"
ip address add 192.0.2.1/24 dev pvx-a
ip link set pvx-a up
(on B / sh -ec 'mount -t tmpfs -o mode=0755 tmpfs /run; mkdir /run/avahi-daemon
  ip link set lo up; ip address add 192.0.2.2/24 dev pvx-b; ip link set pvx-b up')
start_daemons A pvx-a
start_daemons B pvx-b
start_program A host-a
expect_advertised A "$expected" $port pvx-a.local
start_program B host-b
wait_until warned_taken host-b || fail "the second host did not warn about the taken name"
expect_advertised A "$collided" $port pvx-b.local
expect_advertised A "$expected" $port pvx-a.local
expect_advertised B "$collided" $port pvx-b.local
[[ $(warnings host-a 'Bonjour|taken') -eq 0 ]] || fail "the first host warned"
stop_program host-b
stop_program host-a
say "PASS"
