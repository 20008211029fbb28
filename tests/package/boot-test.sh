#!/usr/bin/env bash
# boot-test.sh PACKAGE.deb: the package as a venue runs it, on a Debian 12 system that boots with
# systemd, in a container (systemd-nspawn) whose network is loopback only. Installs it with apt,
# then checks the service: ready and advertised, announcements heard by a crew client, the voice
# from /etc/default/parlavox, the roles file in the state directory when /etc has none, a restart
# by the watchdog when the loop hangs, a clean stop, and a purge.
#
# Needs root, systemd-container, debootstrap and the Debian mirror; slow the first time (it
# bootstraps a system into /var/tmp, kept for later runs), so it is not part of ./dev test:
#   ./dev package && tests/package/boot-test.sh build/release/parlavox_*.deb
set -euo pipefail
deb=$(realpath "$1")
base=/var/tmp/parlavox-boot-base
root=/var/tmp/parlavox-boot
step() { echo "== $*"; }
fail() {
  echo "❌ boot-test: $*"
  exit 1
}

if [[ ! -d $base ]]; then
  step "bootstrapping Debian 12 into $base"
  debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus,avahi-daemon,avahi-utils,liblo-tools \
    bookworm "$base.partial" http://deb.debian.org/debian >/dev/null
  mv "$base.partial" "$base"
fi
rm -rf "$root"
cp -a "$base" "$root"
cp /etc/resolv.conf "$root/etc/resolv.conf"
cp "$deb" "$root/root/"

step "apt install ./$(basename "$deb")"
chroot "$root" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
  "/root/$(basename "$deb")" | tail -n 3

step "booting"
systemd-nspawn -D "$root" -b --private-network --register=no --keep-unit -M parlavox-boot \
  >"$root.console" 2>&1 &
nspawn=$!
trap 'kill $nspawn 2>/dev/null || true; wait $nspawn 2>/dev/null || true' EXIT
init=""
for _ in $(seq 100); do
  init=$(pgrep -P "$nspawn" -x systemd || true)
  [[ -n $init ]] && break
  sleep 0.1
done
[[ -n $init ]] || fail "the container did not start: $(cat "$root.console")"
box() { nsenter -t "$init" -a -- "$@"; }
for _ in $(seq 300); do
  case $(box systemctl is-system-running 2>/dev/null) in running | degraded) break ;; esac
  sleep 0.1
done
journal() { box journalctl -u parlavox --no-pager -o cat; }
status() { box systemctl show -p StatusText --value parlavox; }
# A crew member listening for 5 s while show control announces; what parlavox-client wrote last.
announce() {
  box sh -c "parlavox-client 127.0.0.1 listen --role 'Stage Manager' --seconds 5 --out /tmp/heard.wav >/tmp/client.log &
    sleep 1.5; oscsend 127.0.0.1 47000 /parlavox/say s 'Places please'; wait; tail -n 1 /tmp/client.log"
}

step "the service"
box systemctl is-active parlavox || fail "parlavox.service is not active: $(journal)"
[[ $(status) == "0 crew joined, 0 talking" ]] || fail "status: $(status)"
for _ in $(seq 20); do
  browsed=$(box avahi-browse -rtp _intercom._udp 2>&1 || true)
  grep -q '^=;.*;Parlavox;_intercom._udp;local;.*;50505;' <<<"$browsed" && break
  sleep 0.5
done
grep -q '^=;.*;Parlavox;_intercom._udp;local;.*;50505;' <<<"$browsed" || fail "not advertised: $browsed"
journal | grep -q 'unavailable' && fail "advertising failed: $(journal)"
[[ $(announce) == *"1 sender heard"* ]] || fail "no announcement heard: $(journal)"

step "PARLAVOX_VOICE=fr in /etc/default/parlavox"
echo PARLAVOX_VOICE=fr | box tee -a /etc/default/parlavox >/dev/null
box systemctl restart parlavox
box sh -c 'tr "\0" "\n" </proc/$(systemctl show -p MainPID --value parlavox)/environ' |
  grep -qx PARLAVOX_VOICE=fr || fail "the voice did not reach the server's environment"
[[ $(announce) == *"1 sender heard"* ]] || fail "no announcement in French: $(journal)"

step "no /etc/parlavox/roles.json"
box mv /etc/parlavox/roles.json /root/roles.json
box systemctl restart parlavox
journal | grep -q "📝 Wrote default roles to /var/lib/parlavox/roles.json" || fail "$(journal)"
box test -f /var/lib/private/parlavox/roles.json || fail "no roles file in the state directory"

step "a hung loop"
box sh -c 'kill -STOP $(systemctl show -p MainPID --value parlavox)'
for _ in $(seq 30); do
  [[ $(box systemctl show -p NRestarts --value parlavox) == 1 ]] && break
  sleep 1
done
box journalctl -u parlavox --no-pager -o cat | grep -q "Watchdog timeout" || fail "no watchdog"
box systemctl is-active parlavox || fail "not restarted after the watchdog"

step "stop and purge"
box systemctl stop parlavox
box journalctl -u parlavox --no-pager -o cat -n 3 | grep -q "Deactivated successfully" ||
  fail "the stop was not clean: $(box journalctl -u parlavox --no-pager -n 5)"
box dpkg --purge parlavox >/dev/null
box test ! -e /var/lib/private/parlavox || fail "the purge left the state directory"
box journalctl -u parlavox --no-pager -o short | tail -n 12
echo "✅ $(basename "$deb") runs as a service"
