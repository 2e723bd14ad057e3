#!/usr/bin/env bash
# Sets up what the demo needs and transcribes a bundled recording with the
# bundled trained models: prints kerrow's JSON lines as the host would read
# them, then the merged transcript. Then, through scripts/demo_speakers.sh,
# enrolls the two voices of the bundled dialog and prints the dialog's
# transcript with their names.
#
# Only the kerrow executable is built, in a folder of its own (default
# build-demo/) configured without the test suites, so the transcript comes
# within a minute of the dependencies being fetched; scripts/test.sh builds
# and runs everything.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-demo}
wav=${1:-$root/tests/data/audio/espeak/en10s.wav}
jobs=$(getconf _NPROCESSORS_ONLN 2>/dev/null || echo 2)

bash "$root/scripts/install_system_deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKERROW_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target kerrow -j"$jobs" >/dev/null

models=$root/models/trained
out=$(mktemp)
trap 'rm -f "$out"' EXIT
set +e
"$build/kerrow" \
  --manual-mode \
  --wav-input "$wav" \
  --second-type sensevoice \
  --second-model "$models/sensevoice-en-char-v2/model.onnx" \
  --second-tokens "$models/sensevoice-en-char-v2/tokens.txt" \
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
[ "$status" -eq 0 ] || exit "$status"

echo
echo "=== who said what: diarization and enrolled names ==="
BUILD_DIR=$build bash "$root/scripts/demo_speakers.sh"
