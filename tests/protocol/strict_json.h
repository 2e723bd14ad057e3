#ifndef KERROW_TESTS_PROTOCOL_STRICT_JSON_H_
#define KERROW_TESTS_PROTOCOL_STRICT_JSON_H_

// Checks output lines the way a strict host parser reads them: each line must
// decode as UTF-8 without any replacement and parse as one JSON object, with
// no raw control character inside a string. Python's decoder and json module
// (strict by default) do the judging, so the engine's own escaping is not
// graded by code that shares its assumptions.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/kerrow_process.h"

namespace kerrow::testing {

inline constexpr char kStrictJsonCheck[] =
    "import json, sys\n"
    "data = open(sys.argv[1], 'rb').read()\n"
    "for number, raw in enumerate(data.split(b'\\n')[:-1]):\n"
    "    try:\n"
    "        value = json.loads(raw.decode('utf-8', errors='strict'))\n"
    "        if not isinstance(value, dict): raise ValueError('not an object')\n"
    "    except Exception as failure:\n"
    "        print('line', number, type(failure).__name__, failure)\n";

inline ::testing::AssertionResult AllLinesAreStrictJson(const std::vector<std::string>& lines) {
  TempDir dir;
  std::string bytes;
  for (const std::string& line : lines) bytes += line + "\n";
  WriteFileBytes(dir.File("lines.jsonl"), bytes);
  WriteFileBytes(dir.File("check.py"), kStrictJsonCheck);
  const std::string command = "python3 '" + dir.File("check.py") + "' '" + dir.File("lines.jsonl") + "' 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return ::testing::AssertionFailure() << "cannot run python3";
  std::string complaints;
  char buffer[512];
  while (std::fgets(buffer, sizeof(buffer), pipe) != nullptr) complaints += buffer;
  const int status = pclose(pipe);
  if (status != 0 || !complaints.empty()) {
    return ::testing::AssertionFailure() << "status " << status << ": " << complaints;
  }
  return ::testing::AssertionSuccess() << lines.size() << " strict JSON lines";
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_PROTOCOL_STRICT_JSON_H_
