#!/usr/bin/env bash
# Transcribes the bundled two-voice dialog with speaker labels and enrolled
# names: enrolls voice A as Alice and voice B as Bob into a fresh speaker
# database, runs kerrow with diarization and speaker identification, prints
# its JSON lines as the host would read them, then one line per segment:
# time span, speaker, text.
#
# Builds only the kerrow executable, in the same folder as scripts/demo.sh
# (default build-demo/).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-demo}
dialog=$root/tests/data/audio/espeak-dialog
jobs=$(getconf _NPROCESSORS_ONLN 2>/dev/null || echo 2)

bash "$root/scripts/install_system_deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKERROW_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target kerrow -j"$jobs" >/dev/null

models=$root/models/trained
embedding=$models/speaker-embedding/model.onnx
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
db=$work/speakers.txt

"$build/kerrow" --register-name Alice --register-input "$dialog/a_enroll.wav" \
  --speaker-embedding-model "$embedding" --speaker-enroll-db "$db"
"$build/kerrow" --register-name Bob --register-input "$dialog/b_enroll.wav" \
  --speaker-embedding-model "$embedding" --speaker-enroll-db "$db"

set +e
"$build/kerrow" \
  --manual-mode \
  --wav-input "$dialog/two-voices-dialog.wav" \
  --second-model "$models/sensevoice-en-char-v2/model.onnx" \
  --second-tokens "$models/sensevoice-en-char-v2/tokens.txt" \
  --ct-transformer "$models/punct-en/model.onnx" \
  --silero-vad-model "$build/deps/silero-vad/weights/silero_vad.onnx" \
  --diarization \
  --diarization-segmentation-model "$models/segmentation-3spk/model.onnx" \
  --diarization-embedding-model "$embedding" \
  --diarization-max-speakers 2 \
  --speaker-id --speaker-embedding-model "$embedding" --speaker-enroll-db "$db" | tee "$work/out.jsonl"
status=${PIPESTATUS[0]}
set -e

echo
echo "exit status: $status"
echo "speaker-labelled transcript:"
node -e '
  const lines = require("fs").readFileSync(process.argv[1], "utf8").split("\n");
  for (const line of lines) {
    if (!line) continue;
    const event = JSON.parse(line);
    if (event.type !== "result") continue;
    for (const s of event.segments) {
      console.log(`[${s.start_time.toFixed(2)}-${s.end_time.toFixed(2)}] ${s.speaker || "?"}: ${s.text}`);
    }
  }' "$work/out.jsonl"
exit "$status"
