# Sourced by the sample-host tests: a scratch file for what the sample host
# prints (removed on exit), a failure that shows that output, and the checks
# every session shares: "ready" first, the complete event and status 0 last.
out=$(mktemp)
trap 'rm -f "$out"' EXIT

fail() {
  echo "FAIL: $*" >&2
  echo "--- sample host output:" >&2
  cat "$out" >&2
  exit 1
}

expect_ready_first() {
  [ "$(head -n 1 "$out")" = "ready" ] || fail "the first line is not ready"
}

expect_clean_end() {
  [ "$(tail -n 2 "$out")" = "complete    Session ended (partial M2)
kerrow exited with status 0" ] || fail "the session did not end with the complete event and status 0"
  echo "sample host output checked: $(grep -c . "$out") lines"
}
