# shellcheck shell=bash
# Sandbox for end-to-end tests against real avahi-daemon and dbus-daemon processes; sourced by
# dnssd-test.sh and client-dnssd-test.sh, which set SANDBOX_NAME (the prefix of their messages)
# first.
#
# Outside, a test script checks its arguments and calls sandbox_run, which checks the
# preconditions and runs the script again as "SCRIPT --inner WORK ARGS..." inside new network,
# mount and PID namespaces, bounded in time. Inside, the script calls sandbox_inside WORK and goes
# on with ARGS. The daemons there see only loopback, or veth pairs between namespaces made by the
# test, never a real interface. Their bus sockets, configuration and logs live in `work`; tmpfs
# mounts cover /run and /etc/avahi/services so that nothing of the host's is read or written. When
# the test ends, the PID namespace takes every process it started with it.
#
# Sites are hosts: A is the script's own namespaces; another site is the namespaces of a process
# whose pid the test puts in `site_pid[SITE]`. Each site has its own system bus.

readonly SERVICE_TYPE=_intercom._udp
readonly WAIT_SECONDS=15 # the bound of every wait for something to appear

say() { printf '%s: %s\n' "$SANDBOX_NAME" "$*"; }

# sandbox_run TOTAL_SECONDS TOOL... -- ARGS...: see above; never returns. Exits 77 (skipped)
# without root or namespaces, 1 when a tool is missing or the bound is hit.
sandbox_run() {
  local total=$1 tool status=0 tools=()
  shift
  while [[ $1 != -- ]]; do
    tools+=("$1")
    shift
  done
  shift
  if [[ $(id -u) -ne 0 ]]; then
    say "SKIP: needs root for network namespaces"
    exit 77
  fi
  if ! unshare --net --mount --pid --fork --mount-proc true 2>/dev/null; then
    say "SKIP: cannot create namespaces (unshare failed)"
    exit 77
  fi
  for tool in avahi-daemon avahi-browse dbus-daemon ip timeout "${tools[@]}"; do
    command -v "$tool" >/dev/null || { say "FAIL: $tool is not installed"; exit 1; }
  done
  sandbox_outer_work=$(mktemp -d "${TMPDIR:-/tmp}/parlavox-$SANDBOX_NAME.XXXXXX")
  trap 'rm -rf "$sandbox_outer_work"' EXIT
  # --kill-child: should the bound be hit, the namespace's first process dies and the kernel ends
  # all the others with it.
  timeout --kill-after=5 "$total" \
    unshare --net --mount --propagation private --pid --fork --mount-proc --kill-child \
    "$0" --inner "$sandbox_outer_work" "$@" || status=$?
  if [[ $status -eq 124 || $status -eq 137 ]]; then
    say "FAIL: did not finish within ${total}s"
    status=1
  fi
  exit "$status"
}

declare -A pids=()     # label -> pid of everything started, for stopping and clean-up
declare -A site_pid=() # site -> a pid in whose namespaces the site lives (not A's)

# sandbox_inside WORK: PID 1 of the new namespaces; brings loopback up and covers /run.
sandbox_inside() {
  work=$1
  trap sandbox_clean_up EXIT
  ip link set lo up
  ip link set lo multicast on
  mount -t tmpfs -o mode=0755 tmpfs /run
  mkdir /run/avahi-daemon
  [[ ! -d /etc/avahi/services ]] || mount -t tmpfs tmpfs /etc/avahi/services
}

sandbox_clean_up() {
  local label site
  for label in "${!pids[@]}"; do
    kill -TERM "${pids[$label]}" 2>/dev/null || true
  done
  sleep 0.5
  for label in "${!pids[@]}"; do
    kill -KILL "${pids[$label]}" 2>/dev/null || true
  done
  for site in "${!site_pid[@]}"; do
    kill -KILL "${site_pid[$site]}" 2>/dev/null || true
  done
}

fail() {
  local label file
  say "FAIL: $*"
  for label in "${!pids[@]}"; do
    kill -0 "${pids[$label]}" 2>/dev/null || say "($label is no longer running)"
  done
  for file in "$work"/*.log; do
    [[ -e "$file" ]] || continue
    printf '%s\n' "----- ${file##*/}"
    cat "$file"
  done
  printf '%s\n' "-----"
  exit 1
}

# Polls until `COMMAND...` succeeds or WAIT_SECONDS pass.
wait_until() {
  local deadline=$((SECONDS + WAIT_SECONDS))
  until "$@"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.2
  done
}

bus_address() { printf 'unix:path=%s' "$work/bus-$1.socket"; }

# in_site SITE COMMAND...: runs COMMAND in the site's namespaces, with the site's bus.
in_site() {
  local site=$1
  shift
  if [[ "$site" == A ]]; then
    DBUS_SYSTEM_BUS_ADDRESS=$(bus_address A) "$@"
  else
    DBUS_SYSTEM_BUS_ADDRESS=$(bus_address "$site") \
      nsenter --target "${site_pid[$site]}" --net --mount "$@"
  fi
}

# spawn LABEL SITE DIRECTORY COMMAND...: starts COMMAND in the background as in_site does, in
# DIRECTORY, output to LABEL.log; its pid (the command's own, for signals) goes into `pids`.
spawn() {
  local label=$1 site=$2 directory=$3
  shift 3
  (
    cd "$directory" || exit 1
    export DBUS_SYSTEM_BUS_ADDRESS
    DBUS_SYSTEM_BUS_ADDRESS=$(bus_address "$site")
    if [[ "$site" == A ]]; then
      exec "$@"
    else
      # --wd: entering a mount namespace would otherwise leave the command in "/".
      exec nsenter --target "${site_pid[$site]}" --net --mount --wd="$directory" "$@"
    fi
  ) >>"$work/$label.log" 2>&1 &
  pids[$label]=$!
}

alive() { kill -0 "${pids[$1]}" 2>/dev/null; }

# stop LABEL: SIGTERM, then SIGKILL after 5 s. Sets `stopped_status` to the exit status.
# shellcheck disable=SC2034 # stopped_status is for the caller
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

# ---- daemons --------------------------------------------------------------------------------

start_bus() { # SITE
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

started_count() { grep -c 'Server startup complete' "$1" 2>/dev/null || true; }
started_more_than() { [[ $(started_count "$1") -gt $2 ]]; }

# start_avahi SITE INTERFACE: a daemon that uses INTERFACE only, with host name pvx-SITE.
start_avahi() {
  local site=$1 interface=$2 log="$work/avahi-$1.log" before
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
  before=$(started_count "$log")
  spawn "avahi-$site" "$site" "$work" \
    avahi-daemon --no-drop-root --no-chroot --no-rlimits -f "$work/avahi-$site.conf"
  wait_until started_more_than "$log" "$before" || fail "avahi-daemon of site $site did not start"
}

stop_daemons() { # SITE
  [[ -z "${pids[avahi-$1]:-}" ]] || stop "avahi-$1"
  [[ -z "${pids[dbus-$1]:-}" ]] || stop "dbus-$1"
}

# ---- browsing -------------------------------------------------------------------------------

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
