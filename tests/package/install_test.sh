#!/usr/bin/env bash
# Installs the Debian packages on this machine, builds a C host against them
# with pkg-config and with CMake and runs it, runs each installed program's
# --version and dtconfigd as the service runs it (an unprivileged user, the
# packaged configuration), then removes and purges the packages and checks
# that nothing of theirs is left. Changes the machine: run it alone, as root.
# The packages are purged on every way out.
#   tests/package/install_test.sh DEB-DIR VERSION
set -uo pipefail
debs=${1:?usage: install_test.sh DEB-DIR VERSION}
version=${2:?usage: install_test.sh DEB-DIR VERSION}
packages=(dtkit-tools libdtkit-dev libdtkit0)

if [ "$(id -u)" != 0 ]; then
  echo "install test skipped: installing packages needs root"
  exit 0
fi
work=$(mktemp -d /tmp/dtkit-install-test.XXXXXX)
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
purge() { dpkg --purge "${packages[@]}" >"$work/purge.log" 2>&1; }
cleanup() { purge; rm -rf "$work"; }
trap cleanup EXIT

# What of ours is on the machine, by name, in the folders packages write to.
ours() {
  find /usr/bin /usr/include /usr/lib /usr/share/doc /usr/share/man /usr/share/dtkit /etc /lib/systemd \
       /var/lib/systemd/deb-systemd-helper-enabled /var/lib/systemd/deb-systemd-helper-masked 2>/dev/null \
    | grep -E '/(lib)?dtkit|dtcollect|dtfcm|dtconfigd' | sort
}
for p in "${packages[@]}"; do
  if grep -q installed <<<"$(dpkg-query -W -f '${Status}' "$p" 2>/dev/null)"; then
    echo "install test: $p is already installed; not touching this machine"; exit 1
  fi
done
ours >"$work/before"

echo "== dpkg -i"
dpkg -i "$debs"/libdtkit0_*.deb "$debs"/libdtkit-dev_*.deb "$debs"/dtkit-tools_*.deb >"$work/install.log" 2>&1 \
  || { cat "$work/install.log"; fail "dpkg -i"; exit 1; }
for p in "${packages[@]}"; do
  echo "$p $(dpkg-query -W -f '${Version} ${Status}' "$p")"
done

# A host that uses the umbrella header, the accounted allocator (its 100
# bytes count with their 4-byte header), the pack format, a collection
# section and the fault file's path, and says what it got.
cat >"$work/host.c" <<'C'
#include <dtkit/dtkit.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    unsigned char rec[8];
    uint32_t n = DTBuffer_Pack(rec, "BIH", 7, 0x01020304u, 0x0506);
    void *p = DTMem_Malloc(9, 100);
    DTMemOwnerStats s;
    int got = DTMem_GetOwnerStats(9, &s);
    DTMem_Free(9, p);
    CollectSection *sec = Collect_New("status", NULL, NULL);
    printf("packed %u bytes, first %02x last %02x; owner 9 held %u bytes (%d); section %d; fault file %s\n",
           (unsigned)n, rec[0], rec[n - 1], (unsigned)s.bytes, got, sec ? (int)sec->index : -1, DTFAULT_FILE);
    return n == 7 && got == 0 && s.bytes == 104 && sec && sec->index == 0 ? 0 : 1;
}
C
want="packed 7 bytes, first 07 last 06; owner 9 held 104 bytes (0); section 0; fault file /fcm.log"
check_host() {
  local how=$1 bin=$2 out
  out=$("$bin" 2>&1) || fail "$how host exited non-zero: $out"
  [ "$out" = "$want" ] || fail "$how host printed '$out'"
  echo "$how host: $out"
}

echo "== pkg-config"
echo "dtkit $(pkg-config --modversion dtkit): $(pkg-config --cflags --libs dtkit)"
[ "$(pkg-config --modversion dtkit)" = "$version" ] || fail "pkg-config version"
# shellcheck disable=SC2046
cc -Wall -Werror -o "$work/host-pc" "$work/host.c" $(pkg-config --cflags --libs dtkit) || fail "pkg-config build"
check_host pkg-config "$work/host-pc"
# Whole outputs are read before matching: under pipefail, grep -q leaving a
# pipe early makes its writer die of SIGPIPE and the pipeline fail at random.
deps=$(ldd "$work/host-pc")
grep -q -E "libdtkit.so.0 => /(usr/)?lib/x86_64-linux-gnu/libdtkit.so.0" <<<"$deps" \
  || fail "pkg-config host does not load the installed libdtkit.so.0: $(grep libdtkit <<<"$deps")"

echo "== CMake"
mkdir -p "$work/cm"
cat >"$work/cm/CMakeLists.txt" <<'CM'
cmake_minimum_required(VERSION 3.16)
project(host C)
find_package(dtkit CONFIG REQUIRED)
add_executable(host-shared ../host.c)
target_link_libraries(host-shared PRIVATE dtkit::dtkit)
add_executable(host-static ../host.c)
target_link_libraries(host-static PRIVATE dtkit::dtkit_static)
message(STATUS "dtkit ${dtkit_VERSION} from ${dtkit_DIR}")
CM
if cmake -S "$work/cm" -B "$work/cm/b" >"$work/cmake.log" 2>&1 && cmake --build "$work/cm/b" >>"$work/cmake.log" 2>&1; then
  grep -- '-- dtkit ' "$work/cmake.log"
  check_host "CMake dtkit::dtkit" "$work/cm/b/host-shared"
  check_host "CMake dtkit::dtkit_static" "$work/cm/b/host-static"
  grep -q libdtkit <<<"$(ldd "$work/cm/b/host-static")" && fail "static host loads libdtkit"
else
  cat "$work/cmake.log"; fail "CMake build"
fi

echo "== --version"
tools=0
for t in dtcollect dtfcm dtconfigd dtkit_exporter; do
  [ -x "/usr/bin/$t" ] || continue
  tools=$((tools + 1))
  # A program that takes --version must answer it exactly; one that refuses
  # it as bad usage (2) does not know it yet, which dtconfigd may not.
  out=$("/usr/bin/$t" --version 2>&1); rc=$?
  if [ $rc = 2 ] && [ "$t" != dtconfigd ]; then
    echo "$t: does not know --version yet"; continue
  fi
  echo "$t --version: $out (exit $rc)"
  [ $rc = 0 ] || fail "$t --version exit $rc"
  [ "$out" = "$t (dtkit) $version" ] || fail "$t --version printed '$out'"
  man -w "$t" >/dev/null 2>&1 || fail "no manual page for $t"
done
[ $tools -ge 3 ] || fail "only $tools programs installed"
man -w 3 dtkit >/dev/null 2>&1 || fail "no dtkit(3) page"
[ -f /usr/share/dtkit/wireshark/dtkit.lua ] || fail "no dissector"

echo "== dtconfigd as its service runs it"
if command -v systemd-analyze >/dev/null; then
  for u in /lib/systemd/system/dtconfigd.service /lib/systemd/system/dtkit_exporter.service; do
    [ -f "$u" ] || continue
    systemd-analyze verify "$u" >"$work/verify.log" 2>&1 || { cat "$work/verify.log"; fail "systemd-analyze verify $u"; }
  done
fi
# The unit's command line, with the packaged defaults, as user nobody, in a
# network namespace of its own so that it meets nobody's port 8999.
(
  set -a; . /etc/default/dtconfigd; set +a
  # shellcheck disable=SC2086
  unshare --net setpriv --reuid=65534 --regid=65534 --clear-groups \
    timeout --preserve-status -s TERM 1 /usr/bin/dtconfigd $DTCONFIGD_OPTS "$DTCONFIGD_FILE"
) >"$work/dtconfigd.log" 2>&1
rc=$?
head -n 2 "$work/dtconfigd.log"
grep -q "serving 0 values in 0 sections from /etc/dtkit/dtconfigd.conf on 0.0.0.0:8999" "$work/dtconfigd.log" \
  || fail "dtconfigd did not serve the packaged file as nobody"
[ $rc = 0 ] || fail "dtconfigd ended with $rc on SIGTERM"

echo "== dpkg -r, then --purge"
dpkg -r "${packages[@]}" >"$work/remove.log" 2>&1 || { cat "$work/remove.log"; fail "dpkg -r"; }
# After a remove only the configuration files stay, as Debian keeps them.
ours | comm -13 "$work/before" - >"$work/kept"
grep -v -E '^/etc/(default/dtconfigd|default/dtkit_exporter|dtkit|dtkit/dtconfigd.conf|systemd/system/dtconfigd.service|systemd/system/dtkit_exporter.service)$' \
  "$work/kept" | grep -v -E '^/var/lib/systemd/deb-systemd-helper-(enabled|masked)/' >"$work/unexpected"
[ -s "$work/unexpected" ] && { cat "$work/unexpected"; fail "left after dpkg -r beyond the configuration"; }
echo "after dpkg -r: $(wc -l <"$work/kept") configuration paths kept"
purge || { cat "$work/purge.log"; fail "dpkg --purge"; }
ours >"$work/after"
if ! diff "$work/before" "$work/after" >"$work/diff"; then
  cat "$work/diff"; fail "left behind after dpkg --purge"
fi
for p in "${packages[@]}"; do
  grep -q installed <<<"$(dpkg-query -W -f '${Status}' "$p" 2>/dev/null)" && fail "$p still installed"
done
echo "after dpkg --purge: nothing left"

if [ $failures -gt 0 ]; then echo "install test: $failures failures"; exit 1; fi
echo "install test: passed"
