#!/usr/bin/env bash
# usage: stream_wav_manual_test.sh PYTHON KERROW SOURCE_DIR
# Streams en_short.wav through examples/stream_wav.py as fast as the pipe takes
# it into a --manual-mode session, whose "stop" decodes the capture on the spot,
# and checks that the one result holds the recording's last word: a capture
# ends with what kerrow has read when "stop" arrives, so the sample host must
# not send it while the end of the file is still in the pipe.
set -euo pipefail
python=$1 kerrow=$2 source=$3
models=$source/models/trained
# shellcheck source=sample_host_checks.sh
source "$(dirname "$0")/sample_host_checks.sh"

"$python" "$source/examples/stream_wav.py" --speed 0 --kerrow "$kerrow" \
  "$source/tests/data/audio/espeak/en_short.wav" -- \
  --manual-mode \
  --second-model "$models/sensevoice-en-char-v2/model.onnx" \
  --second-tokens "$models/sensevoice-en-char-v2/tokens.txt" \
  --num-threads-second 1 \
  --ct-transformer "$models/punct-en/model.onnx" > "$out" || fail "the sample host exited with status $?"

expect_ready_first
! grep -q '^partial' "$out" || fail "--manual-mode alone writes no partials"
[ "$(grep -c '^result' "$out")" -eq 1 ] || fail "expected one result for the one stop"
grep -q '^result      \[---\] .*world.*second pass.*recognizer' "$out" ||
  fail "the result lacks the end of the recording"
expect_clean_end
