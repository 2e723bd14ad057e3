// kerrow-replay is checked against a stand-in engine (a shell script) that
// reports the commands and audio bytes it receives, so the tool's side of the
// protocol is tested without loading any model.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {

#ifdef KERROW_REPLAY_BINARY

// Announces readiness, echoes commands until "quit", then counts what arrived on
// the audio descriptor once the tool closes it.
const char kStandInEngine[] =
    "echo '{\"type\":\"ready\"}'\n"
    "while read -r line; do echo \"command $line\"; [ \"$line\" = quit ] && break; done\n"
    "echo \"audio bytes $(wc -c <&3)\"\n"
    "exit 4\n";

TEST(ReplayTool, SendsStartAudioStopQuitAndReportsExitStatus) {
  // One second of 16-bit audio (32000 bytes) fits in the pipe while the stand-in
  // is still reading commands.
  const ProcessResult result = RunKerrow(
      {"--kerrow", "/bin/sh", "--speed", "0", "--settle", "0.2", "--start-stop",
       AudioPath("format-checks/1s.wav"), "--", "-c", kStandInEngine},
      "", -1, "", std::chrono::seconds(60), "", KERROW_REPLAY_BINARY);
  EXPECT_EQ(result.exit_status, 4);
  EXPECT_EQ(result.stdout_lines,
            (std::vector<std::string>{"{\"type\":\"ready\"}", "command start", "command stop",
                                      "command quit", "audio bytes 32000",
                                      "kerrow-replay: kerrow exited with status 4"}));
}

TEST(ReplayTool, WithoutStartStopOnlyQuitIsSent) {
  const ProcessResult result = RunKerrow(
      {"--kerrow", "/bin/sh", "--speed", "0", "--settle", "0.2", AudioPath("format-checks/1s.wav"),
       "--", "-c", kStandInEngine},
      "", -1, "", std::chrono::seconds(60), "", KERROW_REPLAY_BINARY);
  EXPECT_EQ(result.stdout_lines,
            (std::vector<std::string>{"{\"type\":\"ready\"}", "command quit", "audio bytes 32000",
                                      "kerrow-replay: kerrow exited with status 4"}));
}

TEST(ReplayTool, UnreadableWavFailsBeforeStartingKerrow) {
  TempDir dir;
  const ProcessResult result =
      RunKerrow({"--kerrow", "/bin/false", dir.File("absent.wav"), "--"}, "", -1, "",
                std::chrono::seconds(60), "", KERROW_REPLAY_BINARY);
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_TRUE(result.stdout_lines.empty());
  EXPECT_EQ(result.stderr_text, "kerrow-replay: WAV file not found: " + dir.File("absent.wav") + "\n");
}

#endif  // KERROW_REPLAY_BINARY

}  // namespace
}  // namespace kerrow::testing
