#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, pinned by version.
# apt checks every package against the signed archive index, so the pin is the
# checksum as well. Skips apt entirely when every pinned version is present.
set -euo pipefail

packages=(
  cmake=3.25.1-1
  g++=4:12.2.0-3
  make=4.3-4.1
  libgtest-dev=1.12.1-0.2
  libgmock-dev=1.12.1-0.2
  libbenchmark-dev=1.7.1-1
  clang-14=1:14.0.6-12
  libclang-rt-14-dev=1:14.0.6-12
  openssl
  python3   # runs the sample host of examples/ in the tests
  espeak-ng=1.51+dfsg-10+deb12u2       # speaks the whole-file benchmark's recordings
  sox=14.4.2+git20190427-3.5           # resamples and joins them
)

missing=()
for pin in "${packages[@]}"; do
  name=${pin%%=*}
  want=${pin#*=}
  have=$(dpkg-query -W -f='${Version}' "$name" 2>/dev/null || true)
  if [ -z "$have" ] || { [ "$want" != "$pin" ] && [ "$have" != "$want" ]; }; then
    missing+=("$pin")
  fi
done
# npm fetches the pinned sherpa-onnx runtime; Debian's own npm serves when the
# machine has none.
if ! command -v npm >/dev/null 2>&1; then
  missing+=(npm=9.2.0~ds1-1)
fi

if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
