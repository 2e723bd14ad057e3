#ifndef KERROW_TESTS_SUPPORT_FIFO_FEEDER_H_
#define KERROW_TESTS_SUPPORT_FIFO_FEEDER_H_

// A named pipe with a writer thread behind it, the way a shell's process
// substitution hands a file to a program: the reader can only read it once,
// front to back, and cannot ask for its size.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <thread>

namespace kerrow::testing {

class FifoFeeder {
 public:
  // Creates the FIFO at path and starts writing head and then zero_bytes zeros
  // into it. The writer stops early when the reader goes away.
  FifoFeeder(const std::string& path, std::string head, uint64_t zero_bytes = 0) : path_(path) {
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0) << path;
    writer_ = std::thread([this, head = std::move(head), zero_bytes] { WriteAll(head, zero_bytes); });
  }
  // A reader that never opened the FIFO would leave the writer blocked in open:
  // opening and closing the read end once lets it go (its writes then fail).
  ~FifoFeeder() {
    const int fd = open(path_.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd >= 0) close(fd);
    if (writer_.joinable()) writer_.join();
  }
  FifoFeeder(const FifoFeeder&) = delete;
  FifoFeeder& operator=(const FifoFeeder&) = delete;

 private:
  void WriteAll(const std::string& head, uint64_t zero_bytes) {
    // A reader that stops early makes write fail with EPIPE instead of killing
    // the test process with SIGPIPE.
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
    const int fd = open(path_.c_str(), O_WRONLY);
    if (fd < 0) return;
    if (WriteBytes(fd, head.data(), head.size())) {
      const std::string zeros(1 << 16, '\0');
      while (zero_bytes > 0) {
        const size_t size = static_cast<size_t>(std::min<uint64_t>(zeros.size(), zero_bytes));
        if (!WriteBytes(fd, zeros.data(), size)) break;
        zero_bytes -= size;
      }
    }
    close(fd);
  }

  static bool WriteBytes(int fd, const char* data, size_t size) {
    size_t written = 0;
    while (written < size) {
      const ssize_t n = write(fd, data + written, size - written);
      if (n <= 0) return false;
      written += static_cast<size_t>(n);
    }
    return true;
  }

  std::string path_;
  std::thread writer_;
};

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_FIFO_FEEDER_H_
