#!/usr/bin/env bash
# Builds the Debian packages (cpack -G DEB) for this machine, checks them with
# lintian (any error fails; every warning must be one of those explained
# below), then, as root, installs them, uses them and purges them again
# (tests/package/install_test.sh).
#   scripts/package.sh            build, lint, install test
# The packages are left in build-ci/package/ (DTKIT_BUILD_ROOT).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${DTKIT_BUILD_ROOT:-$root/build-ci}
dir=$out/package
jobs=${DTKIT_JOBS:-2}

. "$root/scripts/packages.sh"
need=()
for tool in cmake ninja:ninja-build g++ scdoc groff:groff-base gzip lintian file readelf:binutils \
            dpkg-shlibdeps:dpkg-dev pkg-config setpriv:util-linux; do
  command -v "${tool%%:*}" >/dev/null || need+=("${tool#*:}")
done
install_missing package.sh ${need[@]+"${need[@]}"}

# Built as Debian builds its packages: optimised, hardened, stripped by cpack.
hard="-D_FORTIFY_SOURCE=2 -fstack-protector-strong"
link="-Wl,-z,relro,-z,now"
mkdir -p "$dir"
echo "== packages: configure and build"
cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DDTKIT_TESTS=OFF \
  -DDTKIT_FAULT_FILE=/fcm.log -DCMAKE_INSTALL_PREFIX=/usr \
  -DCMAKE_C_FLAGS="$hard" -DCMAKE_CXX_FLAGS="$hard" \
  -DCMAKE_EXE_LINKER_FLAGS="$link" -DCMAKE_SHARED_LINKER_FLAGS="$link" >"$out/package.configure.log" 2>&1 \
  || { cat "$out/package.configure.log"; exit 1; }
cmake --build "$dir" -j"$jobs" >"$out/package.build.log" 2>&1 || { tail -n 60 "$out/package.build.log"; exit 1; }
rm -f "$dir"/*.deb
(cd "$dir" && cpack -G DEB) >"$out/package.cpack.log" 2>&1 || { cat "$out/package.cpack.log"; exit 1; }
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$dir/CPackConfig.cmake")
for deb in "$dir"/*.deb; do
  echo "$(basename "$deb"): $(dpkg-deb -f "$deb" Depends)"
done

echo "== lintian"
# Warnings left, each for a reason:
#   initial-upload-closes-no-bugs  the packages are not uploaded to Debian, so
#                                  there is no bug for the first entry to close
#   maintscript-calls-ldconfig     cpack writes these scripts for every shared
#                                  library; the ldconfig trigger is there too
allowed='initial-upload-closes-no-bugs|maintscript-calls-ldconfig'
lintian --tag-display-limit 0 "$dir"/*.deb >"$out/package.lintian.log" 2>&1 || true
grep -E '^[EWIP]: ' "$out/package.lintian.log" || true
errors=$(grep -c '^E: ' "$out/package.lintian.log" || true)
warnings=$(grep -c '^W: ' "$out/package.lintian.log" || true)
unexplained=$(grep '^W: ' "$out/package.lintian.log" | grep -v -E ": ($allowed)( |$)" || true)
echo "lintian: $errors errors, $warnings warnings"
status=0
[ "$errors" = 0 ] || { echo "lintian reports errors"; status=1; }
[ -z "$unexplained" ] || { echo "lintian warnings without a reason here:"; echo "$unexplained"; status=1; }
if grep -q -i 'lintian.*error\|cannot\|^Traceback' "$out/package.lintian.log"; then
  tail -n 20 "$out/package.lintian.log"; echo "lintian did not run through"; status=1
fi

echo "== install test"
"$root/tests/package/install_test.sh" "$dir" "$version" || status=1
exit $status
