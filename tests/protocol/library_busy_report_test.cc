// The file-decode benchmark learns from KERROW_LIBRARY_BUSY_REPORT how much of a
// decode ran inside library calls. The report must stay within the decode phase
// that [TIMING][TOTAL] measures, and asking for it must not change a line of
// what the host reads.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/protocol_fixtures.h"
#include "support/timing_mask.h"

namespace kerrow::testing {
namespace {

std::vector<std::string> DecodeArgs() {
  return Concat({"--manual-mode", "--wav-input", AudioPath("espeak-dialog/two-voices-dialog.wav"),
                 "--num-threads-second", "1", "--silero-vad-model", SileroVadModel(), "--ct-transformer",
                 TrainedPunctuationModel()},
                TrainedSenseVoiceArgs());
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

long TotalMs(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    const size_t at = line.find("[TIMING][TOTAL] ms=");
    if (at != std::string::npos) return std::stol(line.substr(at + 19));
  }
  return -1;
}

TEST(LibraryBusyReport, MeasuresTheDecodeWithoutChangingTheEventStream) {
  const ProcessResult plain = RunKerrow(DecodeArgs());
  ASSERT_EQ(plain.exit_status, 0) << JoinLines(plain.stdout_lines);

  char report_path[] = "/tmp/kerrow-busy-XXXXXX";
  const int fd = mkstemp(report_path);
  ASSERT_GE(fd, 0);
  close(fd);
  setenv("KERROW_LIBRARY_BUSY_REPORT", report_path, 1);
  const ProcessResult measured = RunKerrow(DecodeArgs());
  unsetenv("KERROW_LIBRARY_BUSY_REPORT");
  const std::string report = ReadWholeFile(report_path);
  std::remove(report_path);

  ASSERT_EQ(measured.exit_status, 0) << JoinLines(measured.stdout_lines);
  EXPECT_EQ(MaskTimings(measured.stdout_lines), MaskTimings(plain.stdout_lines));
  ASSERT_EQ(report.rfind("library_busy_ms=", 0), 0u) << report;
  ASSERT_EQ(report.back(), '\n') << report;
  const long busy_ms = std::stol(report.substr(16));
  EXPECT_GT(busy_ms, 0);
  // Whole milliseconds on both sides, so one of rounding.
  EXPECT_LE(busy_ms, TotalMs(measured.stdout_lines) + 1) << JoinLines(measured.stdout_lines);
}

TEST(LibraryBusyReport, WithoutTheVariableNothingIsWritten) {
  char dir_template[] = "/tmp/kerrow-busy-dir-XXXXXX";
  ASSERT_NE(mkdtemp(dir_template), nullptr);
  unsetenv("KERROW_LIBRARY_BUSY_REPORT");
  const ProcessResult r = RunKerrow(DecodeArgs(), "", -1, "", std::chrono::seconds(120), dir_template);
  ASSERT_EQ(r.exit_status, 0);
  EXPECT_EQ(rmdir(dir_template), 0) << "the run left a file in its working directory";
}

}  // namespace
}  // namespace kerrow::testing
