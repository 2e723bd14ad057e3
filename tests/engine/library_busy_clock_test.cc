// The busy clock counts the union of library calls across threads: two calls
// that overlap count once, so the busy time can never exceed the window they ran in.

#include "engine/library_busy_clock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "engine/library_call.h"

namespace kerrow::testing {
namespace {

using Clock = std::chrono::steady_clock;

double MsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

TEST(LibraryBusyClock, RestartWithNoCallRunningReadsZero) {
  LibraryBusyClock::Enable();
  { const LibraryBusyClock::Scope call; }
  LibraryBusyClock::Restart();
  EXPECT_EQ(LibraryBusyClock::BusyMilliseconds(), 0.0);
}

TEST(LibraryBusyClock, OverlappingCallsOnTwoThreadsCountOnce) {
  LibraryBusyClock::Enable();
  LibraryBusyClock::Restart();
  const auto before = Clock::now();
  double inner_ms = 0;
  {
    const LibraryBusyClock::Scope outer;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::thread other([&] {
      const auto inner_start = Clock::now();
      {
        const LibraryBusyClock::Scope inner;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      inner_ms = MsBetween(inner_start, Clock::now());
    });
    other.join();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const double window_ms = MsBetween(before, Clock::now());
  const double busy_ms = LibraryBusyClock::BusyMilliseconds();
  // Counted twice, the inner call would push the total past the window.
  EXPECT_LE(busy_ms, window_ms);
  EXPECT_GE(busy_ms, inner_ms + 40.0);
}

TEST(LibraryBusyClock, GuardedLibraryCallsAreCounted) {
  LibraryBusyClock::Enable();
  LibraryBusyClock::Restart();
  std::string error;
  ASSERT_TRUE(CallLibrary(
      "Sleep()", [] { std::this_thread::sleep_for(std::chrono::milliseconds(5)); }, &error));
  EXPECT_GE(LibraryBusyClock::BusyMilliseconds(), 5.0);
}

TEST(LibraryBusyClock, ACallThatThrowsStillEndsItsInterval) {
  LibraryBusyClock::Enable();
  std::string error;
  EXPECT_FALSE(CallLibrary("Throw()", [] { throw 1; }, &error));
  const double after_call = LibraryBusyClock::BusyMilliseconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(LibraryBusyClock::BusyMilliseconds(), after_call);
}

}  // namespace
}  // namespace kerrow::testing
