#!/usr/bin/env bash
# Builds the release tree, installs it into a scratch prefix and into a .deb,
# then builds both examples against the installed files alone and runs them.
#   package_test.sh SOURCE_DIR WORK_DIR
set -euo pipefail
# Output is captured before grep -q reads it: with pipefail, a writer that
# gets SIGPIPE after grep -q has stopped reading would fail the test.
src=$(realpath "$1")
work=$2
mkdir -p "$work"
work=$(realpath "$work")
release=$work/release
prefix=$work/prefix
jobs=${NTI_PACKAGE_JOBS:-2}

fail() {
  echo "FAIL: $*" >&2
  exit 1
}
step() { echo "== $*"; }
# quiet runs a command with its output kept for when it fails.
quiet() {
  "$@" >"$work/command.log" 2>&1 || {
    tail -n 40 "$work/command.log" >&2
    fail "$*"
  }
}

step "release tree"
quiet cmake -S "$src" -B "$release" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNTI_BUILD_TESTS=OFF \
  -DNTI_BUILD_BENCH=OFF -DNTI_BUILD_FUZZ=OFF -DCMAKE_INSTALL_PREFIX=/usr
quiet cmake --build "$release" -j "$jobs"

step "install into $prefix"
rm -rf "$prefix"
quiet cmake --install "$release" --prefix "$prefix"
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$release/CMakeCache.txt")
moduledir=$libdir/network-traffic-interceptor
module=$prefix/$moduledir/libnetwork_traffic_interceptor.so
[ "$libdir" = "lib/$(gcc -print-multiarch)" ] || fail "libdir $libdir is not the multiarch directory"
for f in "$prefix/bin/nti" "$module" "$prefix/share/man/man1/nti.1.gz" \
  "$prefix/$libdir/libnti_host_services.a" "$prefix/$libdir/pkgconfig/network_traffic_interceptor.pc" \
  "$prefix/$libdir/cmake/NetworkTrafficInterceptor/NetworkTrafficInterceptorConfig.cmake" \
  "$prefix/include/network_traffic_interceptor/network_traffic_interceptor/network_interceptor.h" \
  "$prefix/include/network_traffic_interceptor/qor/object.h" \
  "$prefix/include/network_traffic_interceptor/host/services/host_context.h"; do
  [ -e "$f" ] || fail "not installed: ${f#"$prefix"/}"
done
for f in host/cli host/fixture host/services/process.h; do
  [ ! -e "$prefix/include/network_traffic_interceptor/$f" ] || fail "installed, not public: $f"
done
# A plugin in a directory of its own: one file, no SONAME, found through nti's RUNPATH.
[ -f "$module" ] && [ ! -L "$module" ] || fail "the module is not one plain file"
! grep -q SONAME <<<"$(objdump -p "$module")" || fail "the module has a SONAME"
grep -q "RUNPATH.*\$ORIGIN/../$moduledir" <<<"$(readelf -d "$prefix/bin/nti")" || fail "nti RUNPATH"
grep -q '^\.TH NTI 1' <<<"$("$prefix/bin/nti" --man)" || fail "nti --man"
out=$("$prefix/bin/nti" info 2>&1 || true)
grep -q "module: libnetwork_traffic_interceptor.so" <<<"$out" || fail "installed nti: $out"
grep -q "qorCanUnloadModule before: 0x00000000" <<<"$out" || fail "installed nti: $out"

step "examples against the prefix only"
# A copy, so that nothing beside the examples is reachable from the sources.
rm -rf "$work/examples"
cp -r "$src/examples" "$work/examples"
for example in block_list stats_to_json; do
  quiet env PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" cmake -S "$work/examples/$example" \
    -B "$work/examples/$example/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix"
  quiet cmake --build "$work/examples/$example/build" -j "$jobs"
  bin=$work/examples/$example/build/$example
  grep -q "^usage: $example" <<<"$("$bin" --help)" || fail "$example --help"
  if grep -Eq "$src/(framework|host|network_traffic_interceptor|dwi_[a-z]+)/" \
    "$work/examples/$example/build/build.ninja"; then
    fail "$example build refers to the source tree"
  fi
done
cat >"$work/list.txt" <<'LIST'
# blocked
198.18.0.7
198.18.0.8:443   # https only
[fd00:198:18::7]:53
fd00:198:18::8
LIST
expected=$'198.18.0.7\n198.18.0.8:443\n[fd00:198:18::7]:53\nfd00:198:18::8'
got=$("$work/examples/block_list/build/block_list" --list "$work/list.txt" --print-list)
[ "$got" = "$expected" ] || fail "block_list --print-list: $got"
printf '198.18.0.7:99999\n' >"$work/bad.txt"
if "$work/examples/block_list/build/block_list" --list "$work/bad.txt" --print-list 2>/dev/null; then
  fail "block_list accepted port 99999"
fi

step "examples on the real kernel, in namespaces made here"
if [ "$(id -u)" -eq 0 ] && command -v ip >/dev/null; then
  peer=nti-pkg-peer-$$
  dut=nti-pkg-dut-$$
  example_pids=()
  cleanup_namespaces() {
    for pid in "${example_pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    ip netns del "$peer" 2>/dev/null || true
    ip netns del "$dut" 2>/dev/null || true
  }
  trap cleanup_namespaces EXIT
  ip netns add "$peer"
  ip netns add "$dut"
  ip link add veth-dut netns "$dut" type veth peer name veth-peer netns "$peer"
  ip -n "$dut" addr add 198.18.5.1/30 dev veth-dut
  ip -n "$peer" addr add 198.18.5.2/30 dev veth-peer
  for ns in "$dut" "$peer"; do ip -n "$ns" link set lo up; done
  ip -n "$dut" link set veth-dut up
  ip -n "$peer" link set veth-peer up
  state=$work/state
  rm -rf "$state"

  # block_list drops what goes to 198.18.5.2:7002 and lets 7001 through.
  printf '198.18.5.2:7002\n' >"$work/real.txt"
  ip netns exec "$dut" "$work/examples/block_list/build/block_list" --module "$module" \
    --state-dir "$state" --list "$work/real.txt" --duration 4 \
    >"$work/blocked.txt" 2>"$work/block_list.err" &
  example_pids+=($!)
  for _ in $(seq 50); do
    grep -q intercepting "$work/block_list.err" && break
    sleep 0.1
  done
  grep -q intercepting "$work/block_list.err" || fail "block_list did not start: $(cat "$work/block_list.err")"
  for _ in 1 2 3; do
    ip netns exec "$dut" bash -c 'echo allowed >/dev/udp/198.18.5.2/7001; echo blocked >/dev/udp/198.18.5.2/7002'
  done
  wait "${example_pids[0]}" || fail "block_list failed: $(cat "$work/block_list.err")"
  grep -Eq '^blocked out proto 17 198\.18\.5\.1:[0-9]+ -> 198\.18\.5\.2:7002$' "$work/blocked.txt" ||
    fail "block_list did not report the blocked datagrams: $(cat "$work/blocked.txt")"
  ! grep -q ':7001' "$work/blocked.txt" || fail "block_list blocked port 7001"
  ! grep -q 'nti:' <<<"$(ip netns exec "$dut" iptables-save)" || fail "block_list left rules behind"

  # stats_to_json writes one JSON line per harvested interval.
  ip netns exec "$dut" "$work/examples/stats_to_json/build/stats_to_json" --module "$module" \
    --state-dir "$state" --period 500 --count 2 --duration 10 >"$work/intervals.json" \
    2>"$work/stats_to_json.err" &
  example_pids+=($!)
  sleep 0.3
  ip netns exec "$dut" ping -c 2 -i 0.2 -W 1 198.18.5.2 >/dev/null 2>&1 || true
  wait "${example_pids[1]}" || fail "stats_to_json failed: $(cat "$work/stats_to_json.err")"
  [ "$(grep -c '^{.*}$' "$work/intervals.json")" -ge 2 ] ||
    fail "stats_to_json wrote no intervals: $(cat "$work/intervals.json" "$work/stats_to_json.err")"
  cleanup_namespaces
  trap - EXIT
else
  echo "skipped: needs root and iproute2"
fi

step "Debian packages"
rm -rf "$work/deb"
quiet cpack --config "$release/CPackConfig.cmake" -G DEB -B "$work/deb"
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$release/CMakeCache.txt")
name=network-traffic-interceptor
so=usr/$moduledir/libnetwork_traffic_interceptor.so
# package | Depends it must name (comma-separated, versions apart from the
# -dev package's own one ignored) | files it must hold | what it must not hold
packages=(
  "$name|libc6,libstdc++6,libsystemd0,libmnl0,libsqlite3-0,iptables,iproute2,iputils-ping|usr/bin/nti $so
   usr/share/man/man1/nti.1.gz usr/share/doc/$name/copyright usr/share/doc/$name/changelog.gz|usr/include usr/$libdir/pkgconfig"
  "$name-dev|$name (= $version),libsqlite3-dev,libmnl-dev,libsystemd-dev,libboost[0-9.]*-dev,pkgconf|usr/$libdir/libnti_host_services.a
   usr/$libdir/cmake/NetworkTrafficInterceptor/NetworkTrafficInterceptorConfig.cmake
   usr/$libdir/pkgconfig/network_traffic_interceptor.pc usr/include/network_traffic_interceptor/qor/object.h
   usr/share/doc/$name-dev/copyright usr/share/doc/$name-dev/changelog.gz|usr/bin $so"
)
for entry in "${packages[@]}"; do
  IFS='|' read -r package wanted present absent <<<"${entry//$'\n'/ }"
  deb=$work/deb/${package}_${version}_$(dpkg --print-architecture).deb
  [ -f "$deb" ] || fail "no $deb"
  depends=$(dpkg-deb -f "$deb" Depends)
  echo "$package Depends: $depends"
  IFS=, read -r -a deps <<<"$wanted"
  for dep in "${deps[@]}"; do
    grep -qx "$dep\( (.*)\)\?" <<<"$(sed 's/, */\n/g' <<<"$depends")" || fail "$package Depends lacks $dep"
  done
  root=$work/deb/$package
  dpkg -x "$deb" "$root"
  for f in $present; do [ -e "$root/$f" ] || fail "$package lacks /$f"; done
  for f in $absent; do [ ! -e "$root/$f" ] || fail "$package holds /$f"; done
done
root=$work/deb/$name
grep -q '^\.TH NTI 1' <<<"$(gzip -dc "$root/usr/share/man/man1/nti.1.gz")" || fail "nti.1.gz is no manual page"
for f in "$root/usr/bin/nti" "$root/$so"; do
  ! grep -q '\.symtab' <<<"$(readelf -S "$f")" || fail "not stripped: $f"
done
grep -q '^Format: https://www.debian.org/doc/packaging-manuals/copyright-format/' \
  "$root/usr/share/doc/$name/copyright" || fail "copyright is not machine-readable"
step "lintian"
quiet lintian --fail-on error,warning "$work"/deb/*.deb
echo "PASS"
