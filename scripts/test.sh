#!/usr/bin/env bash
# Sets everything up and runs the whole test suite: the normal build, then the
# live-session suites again under ThreadSanitizer (two threads share the session
# state, so data races are tested for, not hoped against), the whole suite once
# under AddressSanitizer + UndefinedBehaviorSanitizer, and every fuzz target for
# a bounded time (scripts/fuzz.sh). Each extra run can be skipped with
# KERROW_SKIP_TSAN=1, KERROW_SKIP_ASAN=1 or KERROW_SKIP_FUZZ=1.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
jobs=$(nproc)

BUILD_DIR=$build bash "$root/scripts/build.sh"
ctest --test-dir "$build" -j"$jobs" --output-on-failure

if [ "${KERROW_SKIP_TSAN:-0}" != "1" ] && [ -f "$root/tests/live/CMakeLists.txt" ]; then
  tsan=${build}-tsan
  cmake -S "$root" -B "$tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKERROW_SANITIZE=thread >/dev/null
  # The live suites ("live" label: in process, and the built binary's live
  # sessions), and the offline suite for the whole-file decode, whose VAD runs
  # on a thread of its own beside the decoding.
  cmake --build "$tsan" -j"$jobs" --target kerrow kerrow-diarize live_tests protocol_live_tests offline_tests
  # The children inherit this: a race inside a kerrow process ends it with an
  # error status, which the binary-level tests report as a failure.
  export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
  # The diarizer runs its models on onnxruntime's own thread pool; the prebuilt
  # library is not instrumented, so its hand-overs between pool threads are
  # reported as races. Its suites stay out until those reports can be told
  # from kerrow's.
  ctest --test-dir "$tsan" -L live -E '^(DiarizationHelper|DiarizedTranscript)\.' -j"$jobs" --output-on-failure
  ctest --test-dir "$tsan" -R '^Offline2PassSchedule\.' -j"$jobs" --output-on-failure
fi

if [ "${KERROW_SKIP_ASAN:-0}" != "1" ]; then
  asan=${build}-asan
  cmake -S "$root" -B "$asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKERROW_SANITIZE=address,undefined >/dev/null
  # The binary, the replay tool and the suites: the benchmarks check nothing.
  suites=$(cmake --build "$asan" --target help | sed -n 's/^\.\.\. \([a-z_]*_tests\)$/\1/p')
  # shellcheck disable=SC2086
  cmake --build "$asan" -j"$jobs" --target kerrow kerrow-replay $suites
  # Children inherit these, so a finding inside a kerrow process ends it with
  # an error status that the binary-level tests report. The prebuilt sherpa-onnx
  # and onnxruntime libraries are not instrumented; only their own leaks are
  # suppressed.
  export ASAN_OPTIONS="halt_on_error=1 detect_stack_use_after_return=1 strict_string_checks=1"
  export UBSAN_OPTIONS="halt_on_error=1 print_stacktrace=1"
  export LSAN_OPTIONS="suppressions=$root/scripts/sanitizers/lsan.supp print_suppressions=0"
  ctest --test-dir "$asan" -j"$jobs" --output-on-failure
fi

if [ "${KERROW_SKIP_FUZZ:-0}" != "1" ]; then
  FUZZ_BUILD_DIR=${build}-fuzz bash "$root/scripts/fuzz.sh"
fi
