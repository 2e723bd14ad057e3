#ifndef KERROW_TESTS_OFFLINE_STDOUT_CAPTURE_H_
#define KERROW_TESTS_OFFLINE_STDOUT_CAPTURE_H_

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <cctype>
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

// Measured milliseconds are the only thing two decodes of one recording may
// differ in: the digits after every "ms=" ("ms=", "_ms_sum=") become "#".
// (Scanned by hand: GCC's sanitizer builds reject std::regex.)
inline std::string MaskTimings(const std::string& line) {
  static const std::string kLabelEnd = "ms=";
  static const std::string kSumEnd = "_ms_sum=";
  std::string masked;
  size_t at = 0;
  for (size_t found = line.find("=", at); found != std::string::npos;
       found = line.find("=", at)) {
    const size_t after = found + 1;
    masked.append(line, at, after - at);
    at = after;
    const bool timing = masked.size() >= kLabelEnd.size() &&
                        (masked.compare(masked.size() - kLabelEnd.size(), kLabelEnd.size(), kLabelEnd) == 0 ||
                         (masked.size() >= kSumEnd.size() &&
                          masked.compare(masked.size() - kSumEnd.size(), kSumEnd.size(), kSumEnd) == 0));
    if (!timing || at >= line.size() || !std::isdigit(static_cast<unsigned char>(line[at]))) continue;
    while (at < line.size() && std::isdigit(static_cast<unsigned char>(line[at]))) ++at;
    masked.push_back('#');
  }
  masked.append(line, at, std::string::npos);
  return masked;
}

inline std::vector<std::string> MaskTimings(const std::vector<std::string>& lines) {
  std::vector<std::string> masked;
  for (const std::string& line : lines) masked.push_back(MaskTimings(line));
  return masked;
}

}  // namespace testing_support
}  // namespace kerrow

#endif  // KERROW_TESTS_OFFLINE_STDOUT_CAPTURE_H_
