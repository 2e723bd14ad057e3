#include "live/line_reader.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace kerrow {

LineReader::LineReader(int fd, int poll_timeout_ms)
    : fd_(fd), poll_timeout_ms_(poll_timeout_ms) {}

LineReader::Status LineReader::Next(std::string* line) {
  for (;;) {
    const size_t newline = buffer_.find('\n');
    if (newline != std::string::npos) {
      line->assign(buffer_, 0, newline);
      buffer_.erase(0, newline + 1);
      return Status::kLine;
    }
    if (eof_) {
      if (buffer_.empty()) return Status::kEnd;
      line->swap(buffer_);
      buffer_.clear();
      return Status::kLine;
    }
    const Status filled = Fill();
    if (filled != Status::kLine) return filled;
  }
}

LineReader::Status LineReader::Fill() {
  pollfd waiting{fd_, POLLIN, 0};
  const int ready = poll(&waiting, 1, poll_timeout_ms_);
  if (ready == 0) return Status::kNothingYet;
  if (ready < 0) return errno == EINTR ? Status::kNothingYet : Status::kEnd;
  char bytes[4096];
  const ssize_t got = read(fd_, bytes, sizeof bytes);
  if (got < 0) return (errno == EINTR || errno == EAGAIN) ? Status::kNothingYet : Status::kEnd;
  if (got == 0) {
    eof_ = true;
  } else {
    buffer_.append(bytes, static_cast<size_t>(got));
  }
  return Status::kLine;
}

}  // namespace kerrow
