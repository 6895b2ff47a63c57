#!/usr/bin/env bash
# Builds the release tree, installs it into a scratch prefix and into a .deb,
# then builds both examples against the installed files alone and runs them.
#   package_test.sh SOURCE_DIR WORK_DIR
set -euo pipefail
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
module=$prefix/$libdir/libnetwork_traffic_interceptor.so
for f in "$prefix/bin/nti" "$module" "$prefix/share/man/man1/nti.1" \
  "$prefix/$libdir/libnti_host.a" "$prefix/$libdir/pkgconfig/network_traffic_interceptor.pc" \
  "$prefix/$libdir/cmake/NetworkTrafficInterceptor/NetworkTrafficInterceptorConfig.cmake" \
  "$prefix/include/network_traffic_interceptor/network_traffic_interceptor/network_interceptor.h" \
  "$prefix/include/network_traffic_interceptor/qor/object.h" \
  "$prefix/include/network_traffic_interceptor/host/host_context.h"; do
  [ -e "$f" ] || fail "not installed: ${f#"$prefix"/}"
done
# Found by name through the loader: lib<name>.so -> SONAME -> the real file.
soname=$(objdump -p "$module" | awk '/SONAME/ {print $2}')
[ -L "$module" ] && [ -L "$prefix/$libdir/$soname" ] || fail "missing symlinks for $soname"
readelf -d "$prefix/bin/nti" | grep -q "RUNPATH.*\$ORIGIN/../$libdir" || fail "nti RUNPATH"
"$prefix/bin/nti" --man | grep -q '^\.TH NTI 1' || fail "nti --man"
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
  "$bin" --help | grep -q "^usage: $example" || fail "$example --help"
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

step "Debian package"
rm -rf "$work/deb" "$work/root"
quiet cpack --config "$release/CPackConfig.cmake" -G DEB -B "$work/deb"
deb=$(ls "$work"/deb/*.deb)
depends=$(dpkg-deb -f "$deb" Depends)
for dep in libc6 libstdc++6 libsystemd0 iptables; do
  grep -q "\b$dep\b" <<<"$depends" || fail "Depends lacks $dep: $depends"
done
dpkg-deb -e "$deb" "$work/deb/control"
grep -q ldconfig "$work/deb/control/postinst" || fail "postinst does not run ldconfig"
dpkg -x "$deb" "$work/root"
[ -x "$work/root/usr/bin/nti" ] || fail "deb: no /usr/bin/nti"
[ -L "$work/root/usr/$libdir/libnetwork_traffic_interceptor.so" ] || fail "deb: no module link"
echo "Depends: $depends"
echo "PASS"
