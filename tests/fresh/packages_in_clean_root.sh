#!/usr/bin/env bash
# Builds the two Debian packages, then installs them with apt into a second,
# clean minimal Debian 12 root where nothing of the build is present, and
# checks that they work on their own there: `nti info`, `nti demo`, and both
# examples built against /usr and run; then boots that root with systemd as
# its init (systemd-nspawn, with a network of its own) and runs the
# statistics service there as an administrator would. Run as root on a
# Debian 12 machine that may be changed (run-fresh gives one):
#   run-fresh 'bash tests/fresh/packages_in_clean_root.sh'
set -euo pipefail
cd "$(dirname "$0")/../.."
source scripts/deps.sh
nti_install_deps

echo "== build the packages"
cmake --preset package >/dev/null
cmake --build --preset package
rm -rf build/package/deb
cpack --preset package >/dev/null
ls build/package/deb/*.deb

work=$(mktemp -d /tmp/nti-clean.XXXXXX)
root=$work/root
machine=nti-fresh-$$
nspawn=""
leader=""
# The container powers off on SIGTERM to systemd-nspawn; one still booting
# may not, and then its init is killed.
stop_container() {
  kill "$nspawn" 2>/dev/null || return 0
  for _ in $(seq 300); do kill -0 "$nspawn" 2>/dev/null || break; sleep 0.1; done
  ! kill -0 "$nspawn" 2>/dev/null || [ -z "$leader" ] || kill -KILL "$leader"
  wait "$nspawn" || true
}
trap 'stop_container; rm -rf "/run/systemd/nspawn/propagate/$machine"
  rm -rf --one-file-system "$work"' EXIT
mirror=$(grep -h -E '^(URIs:|deb )' /etc/apt/sources.list /etc/apt/sources.list.d/*.sources 2>/dev/null |
  grep -v security | head -n1 | awk '{print $2}') || true
echo "== clean root from $mirror"
debootstrap --variant=minbase bookworm "$root" "$mirror" >"$work/debootstrap.log" 2>&1 ||
  { tail -n 20 "$work/debootstrap.log" >&2; exit 1; }
cp /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true
rm -f "$root/etc/apt/sources.list"
cp -a /etc/apt/sources.list* "$root/etc/apt/" 2>/dev/null || true
mkdir -p "$root/root/deb" "$root/root/examples"
cp build/package/deb/*.deb "$root/root/deb/"
cp -r examples/. "$root/root/examples/"

# The checks run in the clean root, in a private mount namespace so that its
# mounts go with it.
unshare -m bash -euo pipefail -c '
  R=$1
  mount --make-rprivate /
  # `ip netns exec` remounts / as a slave: the root must be a mount point.
  mount --bind "$R" "$R"
  mount -t proc proc "$R/proc"
  mount --rbind /sys "$R/sys"
  mount --rbind /dev "$R/dev"
  mount -t tmpfs tmpfs "$R/run"
  mkdir -p "$R/run/netns"
  exec chroot "$R" /usr/bin/env -i HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
    PATH=/usr/sbin:/usr/bin:/sbin:/bin bash -euo pipefail -c "$2"
' clean-root "$root" '
fail() { echo "FAIL: $*" >&2; exit 1; }
cd /root
apt-get update -qq
echo "== apt install ./*.deb"
apt-get install -y -qq --no-install-recommends ./deb/*.deb >/dev/null
out=$(nti info 2>&1) || fail "nti info: $out"
grep -q "module: libnetwork_traffic_interceptor.so" <<<"$out" || fail "nti info: $out"
gzip -t /usr/share/man/man1/nti.1.gz || fail "no manual page"
echo "== nti demo"
out=$(timeout 120 nti demo 2>&1) || fail "nti demo: $out"
grep -q "All checks passed" <<<"$out" || fail "nti demo: $out"

echo "== examples against /usr"
apt-get install -y -qq --no-install-recommends g++ make cmake >/dev/null
for example in block_list stats_to_json; do
  cmake -S examples/$example -B build/$example -DCMAKE_BUILD_TYPE=Release >build.log 2>&1 ||
    fail "$example: $(tail -n 20 build.log)"
  cmake --build build/$example >build.log 2>&1 || fail "$example: $(tail -n 20 build.log)"
done
ns=nti-clean-$$
trap "ip netns del $ns 2>/dev/null || true" EXIT
ip netns add $ns
ip -n $ns link set lo up
ip -n $ns addr add 198.18.6.1/32 dev lo
echo 198.18.6.2 >list.txt
ip netns exec $ns build/block_list/block_list --list list.txt --state-dir state --duration 1 2>block.err ||
  fail "block_list: $(cat block.err)"
grep -q intercepting block.err || fail "block_list: $(cat block.err)"
ip netns exec $ns build/stats_to_json/stats_to_json --state-dir state --period 300 --count 1 \
  --duration 10 >intervals.json 2>stats.err &
pid=$!
sleep 0.5
ip netns exec $ns ping -c 3 -i 0.2 198.18.6.1 >/dev/null
wait $pid || fail "stats_to_json: $(cat stats.err)"
grep -q "^{.*}$" intervals.json || fail "stats_to_json: $(cat intervals.json stats.err)"
apt-get install -y -qq --no-install-recommends systemd systemd-sysv nftables >/dev/null
'

echo "== nti-stats.service under systemd"
fail() { echo "FAIL: $*" >&2; exit 1; }
systemd-nspawn -b -q --register=no --keep-unit --private-network -D "$root" -M "$machine" \
  >"$work/boot.log" 2>&1 &
nspawn=$!
# The container's init is the child of systemd-nspawn that runs systemd (a
# short-lived helper comes first).
for _ in $(seq 100); do
  for pid in $(ps -o pid= --ppid "$nspawn"); do
    [ "$(cat "/proc/$pid/comm" 2>/dev/null)" != systemd ] || leader=$pid
  done
  [ -z "$leader" ] || break
  sleep 0.1
done
[ -n "$leader" ] || fail "the container did not start: $(tail -n 20 "$work/boot.log")"
# -r -w: run from a chroot (as run-fresh does), nsenter would otherwise keep
# the chroot's root, where no systemd runs.
box() { nsenter -t "$leader" -a -r -w "$@"; }
# Until systemd has opened its socket the answer is "offline".
state=""
for _ in $(seq 120); do
  state=$(box systemctl is-system-running || true)
  [ "$state" != running ] && [ "$state" != degraded ] || break
  sleep 0.5
done
[ "$state" = running ] || [ "$state" = degraded ] ||
  fail "systemd in the container: $state: $(tail -n 20 "$work/boot.log")"
box systemd-analyze verify nti-stats.service || fail "systemd-analyze verify nti-stats.service"
box bash -euo pipefail -c '
ip netns add peer
ip link add v0 type veth peer name v1 netns peer
ip addr add 198.18.7.1/24 dev v0 && ip link set v0 up
ip -n peer addr add 198.18.7.2/24 dev v1 && ip -n peer link set v1 up
mkdir -p /var/log/nti
printf "[collector]\nperiod = 60s\n\n[json]\npath = /var/log/nti/intervals.jsonl\n" >/etc/nti/stats.conf
systemctl start nti-stats'
sleep 2
box systemctl is-active -q nti-stats || fail "not active: $(box journalctl -u nti-stats --no-pager)"
rules() { box nft list ruleset; box iptables-save; }
rules | grep -q 'nti:' || fail "no rules of nti: $(rules)"
box ping -c 5 -i 0.2 -q 198.18.7.2 >/dev/null
box systemctl reload nti-stats
# The interval closes one period after the start.
for _ in $(seq 80); do
  ! box grep -q 198.18.7.2 /var/log/nti/intervals.jsonl 2>/dev/null || break
  sleep 1
done
box grep -q '"remoteIp":"198.18.7.2",.*"packetsSent":5' /var/log/nti/intervals.jsonl ||
  fail "no interval with the pings: $(box cat /var/log/nti/intervals.jsonl)"
box systemctl stop nti-stats
[ "$(box systemctl show -P Result nti-stats)" = success ] || fail "stopped with $(box systemctl show -P Result nti-stats)"
journal=$(box journalctl -u nti-stats --no-pager -o cat)
for line in "RunService: started" "Reload: 1 sinks" "RunService: stopping on SIGTERM"; do
  grep -q "$line" <<<"$journal" || fail "journal lacks \"$line\": $journal"
done
! rules | grep -q 'nti' || fail "rules left: $(rules)"
echo PASS
