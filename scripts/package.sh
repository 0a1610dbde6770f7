#!/usr/bin/env bash
# Builds the Debian packages of a build tree with CPack and checks them.
# The packages land in the tree itself: DIR/libvel0_*.deb,
# DIR/libvel-dev_*.deb and DIR/vel-tools_*.deb. Checks: each has the
# Architecture ARCH; lintian finds no error (its warnings are printed);
# the packaged libvel.so.0 exports only VEL symbols (check-exports.sh);
# the -dev package's headers are exactly include/vel/, each marking its API.
# Usage: scripts/package.sh DIR ARCH [NM]   (e.g. build amd64, or build-arm64 arm64 aarch64-linux-gnu-nm)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$root/$1
arch=$2
nm=${3:-nm}

rm -f "$dir"/*.deb
(cd "$dir" && cpack -G DEB > cpack.log 2>&1) || { cat "$dir/cpack.log"; exit 1; }
mapfile -t debs < <(ls "$dir"/libvel0_*.deb "$dir"/libvel-dev_*.deb "$dir"/vel-tools_*.deb)
((${#debs[@]} == 3)) || { echo "package: expected 3 packages in $dir" >&2; exit 1; }

status=0
for deb in "${debs[@]}"; do
  got=$(dpkg-deb -f "$deb" Architecture)
  echo "package: $(basename "$deb"): Architecture $got; Depends $(dpkg-deb -f "$deb" Depends)"
  if [[ $got != "$arch" ]]; then
    echo "package: $(basename "$deb") has Architecture $got, expected $arch" >&2
    status=1
  fi
done

unpacked=$(mktemp -d)
trap 'rm -rf "$unpacked"' EXIT
for deb in "${debs[@]}"; do
  dpkg -x "$deb" "$unpacked"
done
"$root/scripts/check-exports.sh" "$(find "$unpacked" -name 'libvel.so.0' | head -1)" "$nm" ||
  status=1
if ! diff <(cd "$root/include/vel" && ls) <(cd "$unpacked/usr/include/vel" && ls); then
  echo "package: the installed headers differ from include/vel/" >&2
  status=1
fi
# An installed header is API: it marks what it declares with VEL_API (the
# umbrella vel.h and export.h itself aside), or it does not belong there.
for header in "$unpacked"/usr/include/vel/*.h; do
  case $(basename "$header") in vel.h | export.h) continue ;; esac
  if ! grep -q 'VEL_API' "$header"; then
    echo "package: $(basename "$header") is installed but declares no exported API" >&2
    status=1
  fi
done

# Lintian's errors fail the check; warnings and the notice about running as
# root are shown.
lintian_out=$(lintian "${debs[@]}" 2>&1) || true
[[ -n $lintian_out ]] && sed 's/^/package: lintian: /' <<< "$lintian_out"
if grep -q '^E: ' <<< "$lintian_out"; then
  echo "package: lintian reports errors" >&2
  status=1
fi
exit $status
