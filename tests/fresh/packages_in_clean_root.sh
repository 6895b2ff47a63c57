#!/usr/bin/env bash
# Builds the two Debian packages, then installs them with apt into a second,
# clean minimal Debian 12 root where nothing of the build is present, and
# checks that they work on their own there: `nti info`, `nti demo`, and both
# examples built against /usr and run. Run as root on a Debian 12 machine
# that may be changed (run-fresh gives one):
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
trap 'rm -rf --one-file-system "$work"' EXIT
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
echo PASS
'
