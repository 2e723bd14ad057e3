#ifndef KERROW_ENGINE_LIBRARY_BUSY_CLOCK_H_
#define KERROW_ENGINE_LIBRARY_BUSY_CLOCK_H_

namespace kerrow {

// How long at least one library call was running, whichever thread made it.
// A whole-file decode runs the VAD on one thread and the recognizer on another,
// so adding up the calls' durations would count the overlap twice; this clock
// measures the union, which is what "time outside model calls" is measured
// against. It is off unless a benchmark switches it on, so the calls of a normal
// run pay one relaxed atomic load each.
class LibraryBusyClock {
 public:
  static void Enable();
  static bool Enabled();
  // Forgets what was measured so far (calls in flight keep counting).
  static void Restart();
  static double BusyMilliseconds();

  // Marks one library call, from construction to destruction.
  class Scope {
   public:
    Scope();
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    bool counted_;
  };
};

}  // namespace kerrow

#endif  // KERROW_ENGINE_LIBRARY_BUSY_CLOCK_H_
