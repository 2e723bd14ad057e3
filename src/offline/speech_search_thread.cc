#include "offline/speech_search_thread.h"

#include <utility>

#include "offline/speech_search.h"

namespace kerrow {

SpeechSearchThread::SpeechSearchThread(std::unique_ptr<VadBackend> vad,
                                       const std::vector<float>& samples,
                                       int32_t sample_rate)
    : vad_(std::move(vad)),
      samples_(samples),
      sample_rate_(sample_rate),
      thread_(&SpeechSearchThread::Run, this) {}

SpeechSearchThread::~SpeechSearchThread() {
  stop_.store(true, std::memory_order_relaxed);
  thread_.join();
}

bool SpeechSearchThread::Next(SampleSpan* span) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return done_ || !found_.empty(); });
  if (found_.empty()) return false;
  *span = found_.front();
  found_.pop_front();
  return true;
}

bool SpeechSearchThread::Succeeded(std::string* log_line) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (exception_) std::rethrow_exception(exception_);
  if (!succeeded_) *log_line = log_line_;
  return succeeded_;
}

void SpeechSearchThread::Found(const SampleSpan& span) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    found_.push_back(span);
  }
  changed_.notify_one();
}

void SpeechSearchThread::Run() {
  bool succeeded = false;
  std::string log_line;
  std::exception_ptr exception;
  try {
    succeeded = SearchSpeech(
        vad_.get(), samples_, sample_rate_,
        [this](const SampleSpan& span) { Found(span); }, stop_, &log_line);
  } catch (...) {
    exception = std::current_exception();
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
    succeeded_ = succeeded;
    log_line_ = std::move(log_line);
    exception_ = exception;
  }
  changed_.notify_one();
}

}  // namespace kerrow
