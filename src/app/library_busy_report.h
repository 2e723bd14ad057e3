#ifndef KERROW_APP_LIBRARY_BUSY_REPORT_H_
#define KERROW_APP_LIBRARY_BUSY_REPORT_H_

#include <string>

namespace kerrow {

// The file-decode benchmark needs to know how much of a decode ran outside
// library calls, a figure the event stream cannot carry without changing it.
// When KERROW_LIBRARY_BUSY_REPORT names a file, the decode inside this object's
// lifetime is measured and one line "library_busy_ms=N" is written to that file
// when it ends. Without the variable nothing is measured or written.
class LibraryBusyReport {
 public:
  LibraryBusyReport();
  ~LibraryBusyReport();
  LibraryBusyReport(const LibraryBusyReport&) = delete;
  LibraryBusyReport& operator=(const LibraryBusyReport&) = delete;

 private:
  std::string path_;
};

}  // namespace kerrow

#endif  // KERROW_APP_LIBRARY_BUSY_REPORT_H_
