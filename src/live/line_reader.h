#ifndef KERROW_LIVE_LINE_READER_H_
#define KERROW_LIVE_LINE_READER_H_

#include <string>

namespace kerrow {

// Splits a descriptor's bytes into '\n'-terminated lines. A last line without
// a terminator still counts as a line, as std::getline would return it. Each
// wait for input is bounded, so the caller can look at its own stop flag
// between waits while the writer keeps the descriptor open and silent. The
// descriptor is borrowed, never closed.
class LineReader {
 public:
  enum class Status { kLine, kNothingYet, kEnd };

  LineReader(int fd, int poll_timeout_ms);

  // kLine with the line (newline removed) in *line; kNothingYet when no whole
  // line arrived within the timeout (or a read was interrupted); kEnd once the
  // input has ended or failed and every line has been handed out.
  Status Next(std::string* line);

 private:
  // kLine here means "bytes or the end arrived, look again".
  Status Fill();

  int fd_;
  int poll_timeout_ms_;
  std::string buffer_;
  bool eof_ = false;
};

}  // namespace kerrow

#endif  // KERROW_LIVE_LINE_READER_H_
