#ifndef KERROW_OFFLINE_SPEECH_SEARCH_THREAD_H_
#define KERROW_OFFLINE_SPEECH_SEARCH_THREAD_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/vad_backend.h"
#include "offline/vad_grouping.h"

namespace kerrow {

// Runs SearchSpeech on a thread of its own and hands the segments over one by
// one, so that the groups found so far are decoded while the VAD goes on
// through the rest of the recording.
class SpeechSearchThread {
 public:
  // Takes over an initialised VAD; samples must outlive this object.
  SpeechSearchThread(std::unique_ptr<VadBackend> vad,
                     const std::vector<float>& samples, int32_t sample_rate);
  // Stops the search at its next block and waits for the thread.
  ~SpeechSearchThread();
  SpeechSearchThread(const SpeechSearchThread&) = delete;
  SpeechSearchThread& operator=(const SpeechSearchThread&) = delete;

  // Waits for the next speech segment, in detection order. False once the
  // search has ended and every segment it found was taken.
  bool Next(SampleSpan* span);

  // Once Next has returned false: whether the search succeeded; when not,
  // log_line says why, as SearchSpeech does. An exception that ended the
  // search (running out of memory) is thrown again here, on the caller's
  // thread, where the process turns it into an error event.
  bool Succeeded(std::string* log_line);

 private:
  void Run();
  void Found(const SampleSpan& span);

  std::unique_ptr<VadBackend> vad_;
  const std::vector<float>& samples_;
  const int32_t sample_rate_;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<SampleSpan> found_;
  bool done_ = false;
  bool succeeded_ = false;
  std::string log_line_;
  std::exception_ptr exception_;

  std::atomic<bool> stop_{false};
  std::thread thread_;  // last: starts once everything above exists
};

}  // namespace kerrow

#endif  // KERROW_OFFLINE_SPEECH_SEARCH_THREAD_H_
