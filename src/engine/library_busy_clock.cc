#include "engine/library_busy_clock.h"

#include <atomic>
#include <chrono>
#include <mutex>

namespace kerrow {
namespace {

using Clock = std::chrono::steady_clock;

struct BusyState {
  std::atomic<bool> enabled{false};
  std::mutex mutex;
  int calls_running = 0;
  Clock::time_point busy_since;
  Clock::duration busy_total{};
};

BusyState& State() {
  static BusyState state;
  return state;
}

void Enter() {
  BusyState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.calls_running++ == 0) state.busy_since = Clock::now();
}

void Leave() {
  BusyState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (--state.calls_running == 0) state.busy_total += Clock::now() - state.busy_since;
}

}  // namespace

void LibraryBusyClock::Enable() { State().enabled.store(true); }

bool LibraryBusyClock::Enabled() { return State().enabled.load(std::memory_order_relaxed); }

void LibraryBusyClock::Restart() {
  BusyState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.busy_total = Clock::duration{};
  if (state.calls_running > 0) state.busy_since = Clock::now();
}

double LibraryBusyClock::BusyMilliseconds() {
  BusyState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  Clock::duration total = state.busy_total;
  if (state.calls_running > 0) total += Clock::now() - state.busy_since;
  return std::chrono::duration<double, std::milli>(total).count();
}

LibraryBusyClock::Scope::Scope() : counted_(Enabled()) {
  if (counted_) Enter();
}

LibraryBusyClock::Scope::~Scope() {
  if (counted_) Leave();
}

}  // namespace kerrow
