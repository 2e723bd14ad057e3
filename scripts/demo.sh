#!/usr/bin/env bash
# Sets everything up, then transcribes a bundled recording with the bundled
# trained models: prints kerrow's JSON lines as the host would read them, then
# the merged transcript.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
wav=${1:-$root/tests/data/audio/espeak/en10s.wav}

BUILD_DIR=$build bash "$root/scripts/build.sh"

models=$root/models/trained
out=$(mktemp)
trap 'rm -f "$out"' EXIT
set +e
"$build/kerrow" \
  --manual-mode \
  --wav-input "$wav" \
  --second-type sensevoice \
  --second-model "$models/sensevoice-en-char/model.onnx" \
  --second-tokens "$models/sensevoice-en-char/tokens.txt" \
  --num-threads-second 1 \
  --ct-transformer "$models/punct-en/model.onnx" \
  --silero-vad-model "$build/deps/silero-vad/weights/silero_vad.onnx" | tee "$out"
status=${PIPESTATUS[0]}
set -e

echo
echo "exit status: $status"
echo "merged transcript:"
node -e '
  const lines = require("fs").readFileSync(process.argv[1], "utf8").split("\n");
  for (const line of lines) {
    if (!line) continue;
    const event = JSON.parse(line);
    if (event.type === "result" && event.merged_text !== undefined) console.log(event.merged_text);
  }' "$out"
exit "$status"
