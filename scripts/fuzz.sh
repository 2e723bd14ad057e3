#!/usr/bin/env bash
# Builds the libFuzzer harnesses under fuzz/ with clang (ASan + UBSan) in a
# build folder of their own and runs each one for a bounded time, one after
# the other. Any crash, sanitizer report, broken check, timeout or memory
# blow-up fails the run; the input that showed it is kept under
# <build>/fuzz-findings/ for reproduction (`<build>/fuzz/<target>_fuzz <file>`).
#
#   KERROW_FUZZ_SECONDS  time per target (default 60; 0 only builds)
#   KERROW_FUZZ_TARGETS  space-separated subset, e.g. "wav_reader enroll_db"
#   KERROW_FUZZ_SEED     libFuzzer seed (default 1; "random" for a new one each
#                        run). A fixed seed makes a CI run repeat the same
#                        mutations, so a finding there reproduces; campaigns
#                        that hunt for new findings run with "random".
#   FUZZ_BUILD_DIR       build folder (default <repo>/build-fuzz)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$root/build-fuzz}
seconds=${KERROW_FUZZ_SECONDS:-60}
seed=${KERROW_FUZZ_SEED:-1}
jobs=$(nproc)

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER=clang++-14 \
  -DKERROW_BUILD_FUZZERS=ON -DKERROW_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target kerrow_fuzzers
[ "$seconds" = "0" ] && exit 0

# The file-reading harnesses write one scratch file per input; in memory that
# costs no disk flushes.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then
  export TMPDIR=/dev/shm
fi

targets=${KERROW_FUZZ_TARGETS:-$(cd "$root/fuzz" && ls ./*_fuzz.cc | sed 's|^\./||; s|_fuzz\.cc$||')}
findings=$build/fuzz-findings
mkdir -p "$findings"
failed=()
for target in $targets; do
  # New inputs go to a scratch corpus; the committed seeds are only read.
  work=$build/fuzz-corpus/$target
  mkdir -p "$work"
  args=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -malloc_limit_mb=2048
        -print_final_stats=1 -artifact_prefix="$findings/$target-")
  [ "$seed" != "random" ] && args+=(-seed="$seed")
  [ -f "$root/fuzz/dict/$target.dict" ] && args+=(-dict="$root/fuzz/dict/$target.dict")
  echo "== fuzzing $target for ${seconds}s"
  if ! "$build/fuzz/${target}_fuzz" "${args[@]}" "$work" "$root/fuzz/corpus/$target" \
      >"$build/fuzz-$target.log" 2>&1; then
    failed+=("$target")
    tail -n 60 "$build/fuzz-$target.log"
  fi
  grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' "$build/fuzz-$target.log" || true
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzing found problems in: ${failed[*]} (inputs in $findings)" >&2
  exit 1
fi
