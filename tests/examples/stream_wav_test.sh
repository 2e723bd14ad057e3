#!/usr/bin/env bash
# usage: stream_wav_test.sh PYTHON KERROW SOURCE_DIR VAD_MODEL
# Streams en_short.wav through examples/stream_wav.py into a live two-pass
# session (four times real time: the pipe protocol does not depend on the pace)
# and checks what the sample host prints, in order.
set -euo pipefail
python=$1 kerrow=$2 source=$3 vad=$4
models=$source/models/trained
# shellcheck source=sample_host_checks.sh
source "$(dirname "$0")/sample_host_checks.sh"

"$python" "$source/examples/stream_wav.py" --speed 4 --kerrow "$kerrow" \
  "$source/tests/data/audio/espeak/en_short.wav" -- \
  --manual-mode --manual-realtime \
  --first-encoder "$models/streaming-lstm-en-char/encoder.onnx" \
  --first-decoder "$models/streaming-lstm-en-char/decoder.onnx" \
  --first-joiner "$models/streaming-lstm-en-char/joiner.onnx" \
  --first-tokens "$models/streaming-lstm-en-char/tokens.txt" \
  --second-model "$models/sensevoice-en-char-v2/model.onnx" \
  --second-tokens "$models/sensevoice-en-char-v2/tokens.txt" \
  --num-threads-second 1 \
  --ct-transformer "$models/punct-en/model.onnx" \
  --silero-vad-model "$vad" > "$out" || fail "the sample host exited with status $?"

expect_ready_first
partials=$(grep -c '^partial     \[1\] ' "$out" || true)
[ "$partials" -ge 5 ] || fail "expected partials of segment 1 while the audio streamed, got $partials"
grep -q '^partial     \[1\] .*second pass recognizer$' "$out" || fail "no partial holds the whole sentence"
grep -q '^result      \[1-1\] .*world.*this is a test of the second pass.*recognizer' "$out" ||
  fail "no second-pass result for segment 1"
# Partials come before the result that finalises their segment.
first_result=$(grep -n '^result' "$out" | head -n 1 | cut -d: -f1)
last_partial=$(grep -n '^partial' "$out" | tail -n 1 | cut -d: -f1)
[ "$last_partial" -lt "$first_result" ] || fail "a partial came after the segment's result"
expect_clean_end
