#include "app/library_busy_report.h"

#include <cmath>
#include <cstdlib>
#include <fstream>

#include "engine/library_busy_clock.h"

namespace kerrow {

LibraryBusyReport::LibraryBusyReport() {
  const char* path = std::getenv("KERROW_LIBRARY_BUSY_REPORT");
  if (path == nullptr || *path == '\0') return;
  path_ = path;
  LibraryBusyClock::Enable();
  LibraryBusyClock::Restart();
}

LibraryBusyReport::~LibraryBusyReport() {
  if (path_.empty()) return;
  std::ofstream report(path_, std::ios::trunc);
  report << "library_busy_ms=" << std::llround(LibraryBusyClock::BusyMilliseconds()) << "\n";
}

}  // namespace kerrow
