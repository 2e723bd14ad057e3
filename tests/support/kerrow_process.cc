#include "support/kerrow_process.h"

#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "audio/sample_convert.h"
#include "host/kerrow_host.h"

namespace kerrow::testing {

namespace {

// Live sessions always run at the engine's one rate.
constexpr int kSampleRate = 16000;

std::string BinaryOrDefault(const std::string& binary) {
  return binary.empty() ? std::string(KERROW_BINARY) : binary;
}

uint32_t ReadLe(const std::string& bytes, size_t offset, size_t width) {
  uint32_t value = 0;
  for (size_t i = 0; i < width; ++i) {
    value |= static_cast<uint32_t>(static_cast<uint8_t>(bytes[offset + i])) << (8 * i);
  }
  return value;
}

[[noreturn]] void FailLoad(const std::string& path, const std::string& why) {
  throw std::runtime_error("LoadWavForTest(" + path + "): " + why);
}

}  // namespace

ProcessResult RunKerrow(const std::vector<std::string>& args, const std::string& stdin_text,
                        int audio_fd, const std::string& audio_bytes,
                        std::chrono::milliseconds timeout, const std::string& working_dir,
                        const std::string& binary) {
  host::LaunchConfig launch;
  launch.binary = BinaryOrDefault(binary);
  launch.args = args;
  launch.audio_fd = audio_fd;
  launch.working_dir = working_dir;

  ProcessResult result;
  host::ChildProcess child;
  child.set_write_timeout(timeout);
  std::string error;
  if (!child.Start(launch, &error)) {
    result.stderr_text = error;
    return result;
  }
  std::thread stdin_writer([&child, &stdin_text] {
    child.WriteStdin(stdin_text);
    child.CloseStdin();
  });
  std::thread audio_writer([&child, &audio_bytes, audio_fd] {
    if (audio_fd < 0) return;
    child.WriteAudio(audio_bytes);
    child.CloseAudio();
  });
  result.exit_status = child.Wait(timeout);
  stdin_writer.join();
  audio_writer.join();
  result.stdout_lines = child.StdoutLines();
  result.stderr_text = child.StderrText();
  return result;
}

KerrowProcess::KerrowProcess(Config config)
    : config_(std::move(config)), child_(std::make_unique<host::ChildProcess>()) {}

KerrowProcess::~KerrowProcess() = default;

bool KerrowProcess::Start(std::string* error) {
  host::LaunchConfig launch;
  launch.binary = BinaryOrDefault(config_.binary);
  launch.args = config_.args;
  launch.audio_fd = config_.audio_fd;
  launch.working_dir = config_.working_dir;
  launch.address_space_limit_bytes = config_.address_space_limit_bytes;
  return child_->Start(launch, error);
}

bool KerrowProcess::WriteCommand(const std::string& line) { return child_->WriteStdin(line + "\n"); }

void KerrowProcess::CloseStdin() { child_->CloseStdin(); }

bool KerrowProcess::WriteAudioBytes(const std::string& bytes) { return child_->WriteAudio(bytes); }

bool KerrowProcess::WriteAudioS16(const std::vector<float>& samples) {
  return child_->WriteAudio(FloatToS16le(samples));
}

bool KerrowProcess::WriteAudioF32(const std::vector<float>& samples) {
  return child_->WriteAudio(FloatToF32le(samples));
}

bool KerrowProcess::PlayAudioS16(const std::vector<float>& samples, double speed,
                                 size_t chunk_samples) {
  return host::PlayS16(child_.get(), samples, kSampleRate, speed, chunk_samples);
}

void KerrowProcess::CloseAudio() { child_->CloseAudio(); }

int KerrowProcess::WaitForLineContaining(const std::string& needle,
                                         std::chrono::milliseconds timeout, size_t from) {
  return child_->WaitForLine(
      [&needle](const std::string& line) { return line.find(needle) != std::string::npos; },
      timeout, from);
}

int KerrowProcess::WaitForLine(const std::function<bool(const std::string&)>& pred,
                               std::chrono::milliseconds timeout, size_t from) {
  return child_->WaitForLine(pred, timeout, from);
}

std::vector<std::string> KerrowProcess::Lines() const { return child_->StdoutLines(); }

std::string KerrowProcess::Stderr() const { return child_->StderrText(); }

int KerrowProcess::Wait(std::chrono::milliseconds timeout) { return child_->Wait(timeout); }

pid_t KerrowProcess::pid() const { return child_->pid(); }

long KerrowProcess::PeakRssKb() const { return child_->PeakRssKb(); }

std::string ModelPath(const std::string& relative) {
  return std::string(KERROW_MODELS_DIR) + "/" + relative;
}

std::string AudioPath(const std::string& relative) {
  return std::string(KERROW_TEST_DATA_DIR) + "/audio/" + relative;
}

std::vector<float> LoadWavForTest(const std::string& path) {
  const std::string bytes = ReadFileBytes(path);
  if (bytes.size() < 12 || bytes.compare(0, 4, "RIFF") != 0 || bytes.compare(8, 4, "WAVE") != 0) {
    FailLoad(path, "not a RIFF/WAVE file");
  }
  uint32_t format_tag = 0, channels = 0, bits = 0;
  const char* data = nullptr;
  size_t data_size = 0;
  for (size_t offset = 12; offset + 8 <= bytes.size();) {
    const std::string id = bytes.substr(offset, 4);
    const size_t size = ReadLe(bytes, offset + 4, 4);
    const size_t body = offset + 8;
    if (body + size > bytes.size()) FailLoad(path, "chunk '" + id + "' runs past the end");
    if (id == "fmt " && size >= 16) {
      format_tag = ReadLe(bytes, body, 2);
      channels = ReadLe(bytes, body + 2, 2);
      bits = ReadLe(bytes, body + 14, 2);
    } else if (id == "data") {
      data = bytes.data() + body;
      data_size = size;
    }
    offset = body + size + (size % 2);
  }
  if (channels != 1) FailLoad(path, "not mono");
  std::vector<float> samples;
  const uint8_t* raw = reinterpret_cast<const uint8_t*>(data);
  if (format_tag == 1 && bits == 16) {
    samples.resize(data_size / 2);
    S16leToFloat(raw, samples.size(), samples.data());
  } else if (format_tag == 3 && bits == 32) {
    samples.resize(data_size / 4);
    F32leToFloat(raw, samples.size(), samples.data());
  } else {
    FailLoad(path, "neither 16-bit PCM nor 32-bit float");
  }
  return samples;
}

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                        "/kerrow-test-XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) {
    throw std::runtime_error("TempDir: mkdtemp failed for " + pattern + ": " + std::strerror(errno));
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

const std::string& TempDir::path() const { return path_; }

std::string TempDir::File(const std::string& name) const { return path_ + "/" + name; }

void WriteFileBytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("WriteFileBytes: cannot write " + path);
}

std::string ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("ReadFileBytes: cannot open " + path);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

double CharacterErrorRate(const std::string& reference, const std::string& hypothesis) {
  if (reference.empty()) return hypothesis.empty() ? 0.0 : 1.0;
  // One row of the edit-distance table at a time.
  std::vector<size_t> previous(hypothesis.size() + 1), current(hypothesis.size() + 1);
  for (size_t j = 0; j <= hypothesis.size(); ++j) previous[j] = j;
  for (size_t i = 1; i <= reference.size(); ++i) {
    current[0] = i;
    for (size_t j = 1; j <= hypothesis.size(); ++j) {
      const size_t substitution = previous[j - 1] + (reference[i - 1] == hypothesis[j - 1] ? 0 : 1);
      current[j] = std::min({substitution, previous[j] + 1, current[j - 1] + 1});
    }
    previous.swap(current);
  }
  return static_cast<double>(previous[hypothesis.size()]) / static_cast<double>(reference.size());
}

std::string GitLfsPointerText(const std::string& sha256_hex, size_t size) {
  return "version https://git-lfs.github.com/spec/v1\noid sha256:" + sha256_hex + "\nsize " +
         std::to_string(size) + "\n";
}

}  // namespace kerrow::testing
