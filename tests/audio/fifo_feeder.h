#ifndef KERROW_TESTS_AUDIO_FIFO_FEEDER_H_
#define KERROW_TESTS_AUDIO_FIFO_FEEDER_H_

// A named pipe with a writer thread behind it, the way a shell's process
// substitution hands a file to a program: the reader can only read it once,
// front to back, and cannot ask for its size.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace kerrow::testing {

class FifoFeeder {
 public:
  // Creates the FIFO at path and starts writing bytes into it; the writer blocks
  // in open until a reader opens the other end.
  FifoFeeder(const std::string& path, std::string bytes) : path_(path) {
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0) << path;
    writer_ = std::thread([this, bytes = std::move(bytes)] { WriteAll(bytes); });
  }
  ~FifoFeeder() {
    if (writer_.joinable()) writer_.join();
  }
  FifoFeeder(const FifoFeeder&) = delete;
  FifoFeeder& operator=(const FifoFeeder&) = delete;

 private:
  void WriteAll(const std::string& bytes) {
    const int fd = open(path_.c_str(), O_WRONLY);
    if (fd < 0) return;
    size_t written = 0;
    while (written < bytes.size()) {
      const ssize_t n = write(fd, bytes.data() + written, bytes.size() - written);
      if (n <= 0) break;
      written += static_cast<size_t>(n);
    }
    close(fd);
  }

  std::string path_;
  std::thread writer_;
};

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_AUDIO_FIFO_FEEDER_H_
