#include "support/stdout_capture.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "support/kerrow_process.h"

namespace kerrow::testing {

namespace {

std::vector<std::string> SplitWholeLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t begin = 0;
  for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

void FlushStandardOutput() {
  std::cout.flush();
  std::fflush(stdout);
}

}  // namespace

StdoutCapture::StdoutCapture() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kerrow-stdout-XXXXXX";
  const int fd = mkstemp(&pattern[0]);
  if (fd < 0) {
    ADD_FAILURE() << "StdoutCapture: mkstemp failed for " << pattern;
    return;
  }
  path_ = pattern;
  FlushStandardOutput();
  saved_fd_ = dup(STDOUT_FILENO);
  dup2(fd, STDOUT_FILENO);
  close(fd);
}

StdoutCapture::~StdoutCapture() {
  Restore();
  if (path_.empty()) return;
  if (::testing::Test::HasFailure()) {
    std::fprintf(stderr, "---- captured stdout ----\n%s----\n", ReadAll().c_str());
  }
  unlink(path_.c_str());
}

std::string StdoutCapture::Release() {
  Restore();
  return ReadAll();
}

std::vector<std::string> StdoutCapture::Stop() { return SplitWholeLines(Release()); }

std::vector<std::string> StdoutCapture::Lines() const { return SplitWholeLines(ReadAll()); }

void StdoutCapture::Restore() {
  if (saved_fd_ < 0) return;
  FlushStandardOutput();
  dup2(saved_fd_, STDOUT_FILENO);
  close(saved_fd_);
  saved_fd_ = -1;
}

std::string StdoutCapture::ReadAll() const { return path_.empty() ? "" : ReadFileBytes(path_); }

}  // namespace kerrow::testing
