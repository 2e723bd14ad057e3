#!/usr/bin/env bash
# Sets everything up and runs the whole test suite: the normal build, then the
# live-session suites again under ThreadSanitizer (two threads share the session
# state, so data races are tested for, not hoped against).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
jobs=$(nproc)

BUILD_DIR=$build bash "$root/scripts/build.sh"
ctest --test-dir "$build" -j"$jobs" --output-on-failure

if [ "${KERROW_SKIP_TSAN:-0}" != "1" ] && [ -f "$root/tests/live/CMakeLists.txt" ]; then
  tsan=${build}-tsan
  cmake -S "$root" -B "$tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKERROW_SANITIZE=thread >/dev/null
  cmake --build "$tsan" -j"$jobs" --target kerrow live_tests protocol_tests
  # The children inherit this: a race inside a kerrow process ends it with an
  # error status, which the binary-level tests report as a failure.
  export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
  ctest --test-dir "$tsan" -L live -j"$jobs" --output-on-failure
  ctest --test-dir "$tsan" -R '^(LiveSession|LiveSoak)\.' -j"$jobs" --output-on-failure
fi
