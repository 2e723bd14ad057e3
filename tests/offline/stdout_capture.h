#ifndef KERROW_TESTS_OFFLINE_STDOUT_CAPTURE_H_
#define KERROW_TESTS_OFFLINE_STDOUT_CAPTURE_H_

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace kerrow {
namespace testing_support {

// Redirects the process's standard output (where EventEmitter writes the
// protocol lines) into a temporary file until Stop, then hands back the lines.
class StdoutCapture {
 public:
  StdoutCapture() {
    char path[] = "/tmp/kerrow-stdout-XXXXXX";
    const int fd = mkstemp(path);
    path_ = path;
    std::cout.flush();
    std::fflush(stdout);
    saved_fd_ = dup(STDOUT_FILENO);
    dup2(fd, STDOUT_FILENO);
    close(fd);
  }

  ~StdoutCapture() {
    Restore();
    unlink(path_.c_str());
  }

  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;

  // Ends the capture and returns every line written meanwhile.
  std::vector<std::string> Stop() {
    Restore();
    std::ifstream in(path_);
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
  }

 private:
  void Restore() {
    if (saved_fd_ < 0) return;
    std::cout.flush();
    std::fflush(stdout);
    dup2(saved_fd_, STDOUT_FILENO);
    close(saved_fd_);
    saved_fd_ = -1;
  }

  std::string path_;
  int saved_fd_ = -1;
};

// True when line is a {"message":"…","type":"<type>"} event; *message then
// receives the message, unescaped.
inline bool ParseEventMessage(const std::string& line, const std::string& type,
                              std::string* message) {
  const std::string head = "{\"message\":\"";
  const std::string tail = "\",\"type\":\"" + type + "\"}";
  if (line.size() < head.size() + tail.size() ||
      line.compare(0, head.size(), head) != 0 ||
      line.compare(line.size() - tail.size(), tail.size(), tail) != 0) {
    return false;
  }
  const std::string body =
      line.substr(head.size(), line.size() - head.size() - tail.size());
  std::string out;
  for (size_t i = 0; i < body.size(); ++i) {
    if (body[i] == '\\' && i + 1 < body.size()) {
      const char next = body[++i];
      out.push_back(next == 'n' ? '\n' : next == 't' ? '\t' : next == 'r' ? '\r' : next);
    } else {
      out.push_back(body[i]);
    }
  }
  *message = out;
  return true;
}

// The messages of the log events among lines, in order.
inline std::vector<std::string> LogMessages(const std::vector<std::string>& lines) {
  std::vector<std::string> messages;
  std::string message;
  for (const std::string& line : lines) {
    if (ParseEventMessage(line, "log", &message)) messages.push_back(message);
  }
  return messages;
}

}  // namespace testing_support
}  // namespace kerrow

#endif  // KERROW_TESTS_OFFLINE_STDOUT_CAPTURE_H_
