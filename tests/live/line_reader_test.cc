#include "live/line_reader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace kerrow::testing {
namespace {

class LineReaderTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(pipe(fds_), 0); }
  void TearDown() override {
    close(fds_[0]);
    if (fds_[1] >= 0) close(fds_[1]);
  }

  void Write(const std::string& bytes) {
    ASSERT_EQ(write(fds_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void CloseWriter() {
    close(fds_[1]);
    fds_[1] = -1;
  }

  // Every line until the end, skipping the waits.
  std::vector<std::string> DrainLines(LineReader* reader) {
    std::vector<std::string> lines;
    std::string line;
    for (;;) {
      const LineReader::Status status = reader->Next(&line);
      if (status == LineReader::Status::kEnd) return lines;
      if (status == LineReader::Status::kLine) lines.push_back(line);
    }
  }

  int fds_[2] = {-1, -1};
};

TEST_F(LineReaderTest, SplitsAtNewlinesAndKeepsEmptyLines) {
  Write("start\n\nstop\n");
  CloseWriter();
  LineReader reader(fds_[0], 0);
  EXPECT_EQ(DrainLines(&reader), (std::vector<std::string>{"start", "", "stop"}));
}

TEST_F(LineReaderTest, AnUnterminatedLastLineStillCounts) {
  Write("start\nquit");
  CloseWriter();
  LineReader reader(fds_[0], 0);
  EXPECT_EQ(DrainLines(&reader), (std::vector<std::string>{"start", "quit"}));
}

TEST_F(LineReaderTest, KeepsACarriageReturnAsPartOfTheLine) {
  Write("stop\r\n");
  CloseWriter();
  LineReader reader(fds_[0], 0);
  EXPECT_EQ(DrainLines(&reader), (std::vector<std::string>{"stop\r"}));
}

TEST_F(LineReaderTest, AHalfWrittenLineIsNothingYetUntilItsNewlineArrives) {
  LineReader reader(fds_[0], 0);
  std::string line;
  Write("sto");
  EXPECT_EQ(reader.Next(&line), LineReader::Status::kNothingYet);
  EXPECT_EQ(reader.Next(&line), LineReader::Status::kNothingYet);
  Write("p\n");
  EXPECT_EQ(reader.Next(&line), LineReader::Status::kLine);
  EXPECT_EQ(line, "stop");
}

TEST_F(LineReaderTest, EndsWithoutALineWhenNothingWasWritten) {
  CloseWriter();
  LineReader reader(fds_[0], 0);
  std::string line;
  EXPECT_EQ(reader.Next(&line), LineReader::Status::kEnd);
}

}  // namespace
}  // namespace kerrow::testing
