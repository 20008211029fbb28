#!/usr/bin/env bash
# check-package.sh PACKAGE.deb: the Debian package as an operator gets it. What it holds, what
# lintian says of it, its unit as systemd reads it, and the unpacked programs serving a crew
# member from where the package puts them, on a copy of the roles file it ships.
set -euo pipefail
deb=$(realpath "$1")
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
root=$scratch/root
fail() {
  echo "❌ check-package: $*"
  exit 1
}

echo "== $(basename "$deb")"
dpkg-deb --contents "$deb" | awk '{ print substr($6, 2) }' | tee "$scratch/contents"
for path in /usr/bin/parlavox /usr/bin/parlavox-say /usr/bin/parlavox-client \
  /lib/systemd/system/parlavox.service /usr/lib/sysusers.d/parlavox.conf \
  /etc/parlavox/roles.json /etc/default/parlavox \
  /usr/share/man/man1/parlavox.1.gz /usr/share/man/man1/parlavox-say.1.gz \
  /usr/share/man/man1/parlavox-client.1.gz /usr/share/doc/parlavox/copyright \
  /usr/share/doc/parlavox/changelog.gz; do
  grep -qx "$path" "$scratch/contents" || fail "the package lacks $path"
done
dpkg-deb --info "$deb" conffiles | grep -qx /etc/parlavox/roles.json ||
  fail "/etc/parlavox/roles.json is not a conffile: an upgrade would overwrite the operator's show"

echo "== lintian"
lintian --info --fail-on error "$deb" 2> >(grep -v 'running with root privileges' >&2)

echo "== the unit"
dpkg-deb -x "$deb" "$root"
# The units it refers to (targets, avahi-daemon) come from this machine.
cp -rn /lib/systemd/system/. "$root/lib/systemd/system/"
verdict=$(systemd-analyze verify --man=no --root="$root" parlavox.service 2>&1)
[[ -z $verdict ]] || fail "systemd-analyze verify: $verdict"
# "OK" or better: an exposure of at most 2.0 out of 10.
systemd-analyze security --offline=true --threshold=20 --no-pager \
  "$root/lib/systemd/system/parlavox.service" | tail -n 1 ||
  fail "the unit's exposure is above 2.0"

echo "== the unpacked programs"
mkdir "$scratch/show"
cp "$root/etc/parlavox/roles.json" "$scratch/show/"
cd "$scratch/show"
# In a network namespace of its own, as every end-to-end test: nothing leaves the machine.
"$here/../e2e/netns-run" bash -euo pipefail -c '
  root=$1
  wait_for() { # TEXT FILE: up to 10 s
    for _ in $(seq 100); do grep -q "$1" "$2" && return 0; sleep 0.1; done
    echo "❌ check-package: no \"$1\" in $2:"; cat "$2"; return 1
  }
  "$root/usr/bin/parlavox" roles.json >server.log &
  server=$!
  trap "kill $server 2>/dev/null || true" EXIT
  wait_for "✅ Listening on UDP port 50505" server.log
  "$root/usr/bin/parlavox-client" 127.0.0.1 listen --role "Stage Manager" --name Check \
    --seconds 6 --out heard.wav >client.log &
  client=$!
  wait_for "🎧 Listening as Stage Manager" client.log
  oscsend 127.0.0.1 47000 /parlavox/say s "Places please"
  wait $client
  cat server.log client.log
  # parlavox-say was found beside parlavox, and spoke to the crew.
  grep -q "1 sender heard" client.log
  ! grep -q "say. failed" server.log
' check "$root"
echo "✅ $(basename "$deb") checked"
