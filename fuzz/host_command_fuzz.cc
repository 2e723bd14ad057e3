// Standard input as the host (or anything else) may write it: every byte
// reaches exactly one line, and every line is one command or an unknown one.
#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "live/host_command.h"
#include "live/line_reader.h"
#include "live/shared_state.h"

namespace {

// Stays under the pipe's capacity, so that the single write never blocks.
constexpr size_t kMaxInputBytes = 60000;

std::vector<std::string> ReadAllLines(const uint8_t* data, size_t size) {
  int fds[2];
  FUZZ_CHECK(pipe(fds) == 0, "pipe failed");
  if (size > 0) {
    FUZZ_CHECK(write(fds[1], data, size) == static_cast<ssize_t>(size), "short write into the pipe");
  }
  close(fds[1]);
  kerrow::LineReader reader(fds[0], 0);
  std::vector<std::string> lines;
  std::string line;
  for (;;) {
    const kerrow::LineReader::Status status = reader.Next(&line);
    if (status == kerrow::LineReader::Status::kEnd) break;
    if (status == kerrow::LineReader::Status::kLine) lines.push_back(line);
  }
  close(fds[0]);
  return lines;
}

void CheckCommand(const std::string& line) {
  using kerrow::HostCommandKind;
  const kerrow::HostCommand command = kerrow::ParseHostCommand(line);
  FUZZ_CHECK((command.kind == HostCommandKind::kStart) == (line == "start"), "start");
  FUZZ_CHECK((command.kind == HostCommandKind::kStop) == (line == "stop"), "stop");
  FUZZ_CHECK((command.kind == HostCommandKind::kQuit) == (line == "quit"), "quit");
  FUZZ_CHECK((command.kind == HostCommandKind::kManual) == (line == "manual"), "manual");
  FUZZ_CHECK((command.kind == HostCommandKind::kAuto) == (line == "auto"), "auto");
  FUZZ_CHECK((command.kind == HostCommandKind::kBlank) == line.empty(), "blank");
  if (command.kind != HostCommandKind::kSetSinglePartialInterval) return;
  FUZZ_CHECK(line.find("single-partial-interval") != std::string::npos, "an interval from elsewhere");
  // The command thread turns the number into a step at once; any number the
  // line can spell must give a usable step.
  const uint32_t step = kerrow::SinglePartialStepSamples(command.seconds, 16000);
  FUZZ_CHECK(step >= 1, "an empty step");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInputBytes) return 0;
  const std::vector<std::string> lines = ReadAllLines(data, size);
  std::string joined;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (i > 0) joined += '\n';
    joined += lines[i];
  }
  std::string input(reinterpret_cast<const char*>(data), size);
  if (!input.empty() && input.back() == '\n') input.pop_back();
  FUZZ_CHECK(joined == input, "bytes lost or added between lines");
  for (const std::string& line : lines) CheckCommand(line);
  return 0;
}
