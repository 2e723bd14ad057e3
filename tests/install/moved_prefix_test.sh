#!/usr/bin/env bash
# usage: moved_prefix_test.sh CMAKE BUILD_DIR SOURCE_DIR VAD_MODEL
# Installs BUILD_DIR into a temporary prefix, moves the prefix, and checks that
# the moved kerrow prints exactly what the build tree's kerrow prints for the
# same file decode, loading its libraries and models from the moved tree only.
set -euo pipefail
cmake_command=$1 build=$2 source=$3 vad=$4

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

"$cmake_command" --install "$build" --prefix "$work/installed" >/dev/null
mv "$work/installed" "$work/moved"
prefix=$work/moved
share=$prefix/share/kerrow

for file in bin/kerrow bin/kerrow-replay share/kerrow/silero-vad/silero_vad.onnx \
            share/kerrow/models/trained/sensevoice-en-char-v2/model.onnx \
            share/kerrow/models/trained/punct-en/model.onnx; do
  [ -f "$prefix/$file" ] || fail "$file is not installed"
done
ls "$prefix"/lib/libsherpa-onnx-c-api.* >/dev/null 2>&1 || fail "the sherpa-onnx library is not in lib/"
ls "$prefix"/lib/libonnxruntime* >/dev/null 2>&1 || fail "onnxruntime is not in lib/"

if [ "$(uname -s)" = Linux ]; then
  runpath=$(readelf -d "$prefix/bin/kerrow" | sed -n 's/.*R\(UN\)\{0,1\}PATH.*\[\(.*\)\]/\2/p')
  [ "$runpath" = '$ORIGIN/../lib' ] || fail "run path is '$runpath', expected \$ORIGIN/../lib"
  resolved=$(env -u LD_LIBRARY_PATH ldd "$prefix/bin/kerrow" | sed -n 's/.*libsherpa-onnx-c-api.so => \([^ ]*\).*/\1/p')
  [ -n "$resolved" ] && [ "$(readlink -f "$resolved")" = "$(readlink -f "$prefix/lib/libsherpa-onnx-c-api.so")" ] ||
    fail "the moved kerrow loads '$resolved' instead of the library beside it"
fi

wav=$source/tests/data/audio/espeak/en_short.wav
decode() {
  # Timings differ from run to run; every other byte must match.
  env -u LD_LIBRARY_PATH "$1" --manual-mode --wav-input "$wav" --num-threads-second 1 \
    --second-model "$2/sensevoice-en-char-v2/model.onnx" \
    --second-tokens "$2/sensevoice-en-char-v2/tokens.txt" \
    --ct-transformer "$2/punct-en/model.onnx" \
    --silero-vad-model "$3" | sed 's/ms\(_sum\)\{0,1\}=[0-9]*/ms\1=N/g'
}
decode "$prefix/bin/kerrow" "$share/models/trained" "$share/silero-vad/silero_vad.onnx" > "$work/moved.out" ||
  fail "the moved kerrow failed"
decode "$build/kerrow" "$source/models/trained" "$vad" > "$work/build.out" ||
  fail "the build tree's kerrow failed"

grep -q '^{"type":"result",.*"merged_text":"[^"]' "$work/moved.out" ||
  fail "no transcript from the moved kerrow: $(cat "$work/moved.out")"
diff "$work/build.out" "$work/moved.out" || fail "the moved kerrow printed something else"
echo "moved install transcribed: $(grep -o '"merged_text":"[^"]*"' "$work/moved.out")"
