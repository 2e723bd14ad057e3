#!/usr/bin/env bash
# Makes a 16 kHz mono 16-bit WAV of MINUTES minutes of espeak-ng speech with
# pauses between sentences, like the bundled recordings, for the benchmarks.
# One minute of speech is synthesised once and repeated; the result is kept, so
# a second call with the same OUT returns at once.
#
# usage: make_speech_recording.sh OUT MINUTES
set -euo pipefail

out=${1:?usage: make_speech_recording.sh OUT MINUTES}
minutes=${2:?usage: make_speech_recording.sh OUT MINUTES}
[ -s "$out" ] && exit 0

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

sentences=(
  "The quick brown fox jumps over the lazy dog."
  "Speech recognition converts spoken words into text."
  "Today is Monday and the meeting starts at ten o'clock in the morning."
  "Please remember to bring the report and the slides."
  "The weather will be sunny with a light breeze from the west."
  "We should finish the review before the end of the week."
  "She asked whether the train would leave on time."
  "Numbers like seven, twelve and forty two are easy to read."
)
# Pauses of 0.3 to 1.5 s between sentences: some within the VAD's silence
# limit, some beyond it, so that groups form and close as in real speech.
pauses=(300 900 1500 500 1200 700 400 1000)

ssml="<speak>"
for i in "${!sentences[@]}"; do
  ssml+="${sentences[$i]}<break time=\"${pauses[$i]}ms\"/>"
done
ssml+="</speak>"
espeak-ng -m -v en-us -s 165 -w "$work/unit22k.wav" "$ssml"
sox "$work/unit22k.wav" -r 16000 -c 1 -b 16 "$work/unit.wav"

# Repeat the unit until the recording is at least MINUTES long, then cut it there.
unit_seconds=$(soxi -D "$work/unit.wav")
copies=$(awk -v m="$minutes" -v u="$unit_seconds" 'BEGIN { n = int(m * 60 / u) + 1; print n }')
inputs=()
for ((i = 0; i < copies; i++)); do inputs+=("$work/unit.wav"); done
sox "${inputs[@]}" "$work/long.wav"
sox "$work/long.wav" "$work/cut.wav" trim 0 "$((minutes * 60))"
mkdir -p "$(dirname "$out")"
mv "$work/cut.wav" "$out"
