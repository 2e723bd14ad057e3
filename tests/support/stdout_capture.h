#ifndef KERROW_TESTS_SUPPORT_STDOUT_CAPTURE_H_
#define KERROW_TESTS_SUPPORT_STDOUT_CAPTURE_H_

// For tests that run the engine's code in-process: EventEmitter writes the
// protocol lines to descriptor 1, so the test points descriptor 1 at a
// temporary file and reads the lines back.

#include <string>
#include <vector>

namespace kerrow::testing {

// Sends everything written to standard output into a temporary file from
// construction until Release or Stop. The emitter flushes after every line, so
// the file always holds whole lines. Assertions belong after Release/Stop,
// because gtest itself prints to standard output.
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture();  // restores standard output; shows the capture when the test failed
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;

  // Restores standard output and returns every byte written meanwhile.
  std::string Release();
  // Restores standard output and returns every line written meanwhile.
  std::vector<std::string> Stop();
  // The whole lines written so far, while the capture may still run.
  std::vector<std::string> Lines() const;

 private:
  void Restore();
  std::string ReadAll() const;

  std::string path_;
  int saved_fd_ = -1;
};

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_STDOUT_CAPTURE_H_
