// The request-serving side of the helper protocol, driven with in-memory
// streams and a scripted backend so that every way a request can go wrong is
// checked line by line. The real diarizer behind it is exercised end to end in
// kerrow_diarize_test.cc.

#include "diarization/diarize_helper_server.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "audio/wav_writer.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


// Stands in for the diarizer: answers every Process with the same turns (or
// the same failure) and remembers what it was given.
class ScriptedBackend : public DiarizationBackend {
 public:
  struct Record {
    std::string init_model;
    std::vector<std::vector<float>> processed;
  };

  ScriptedBackend(Record* record, std::vector<DiarizationSegment> turns, std::string init_error = "",
                  std::string process_error = "")
      : record_(record),
        turns_(std::move(turns)),
        init_error_(std::move(init_error)),
        process_error_(std::move(process_error)) {}

  bool Init(const DiarizationInitOptions& options, std::string* error) override {
    record_->init_model = options.model;
    if (!init_error_.empty()) *error = init_error_;
    ready_ = init_error_.empty();
    return ready_;
  }
  bool IsReady() const override { return ready_; }
  bool Process(const std::vector<float>& samples, int /*sample_rate*/,
               std::vector<DiarizationSegment>* out, std::string* error) override {
    record_->processed.push_back(samples);
    if (!process_error_.empty()) {
      *error = process_error_;
      return false;
    }
    *out = turns_;
    return true;
  }

 private:
  Record* record_;
  std::vector<DiarizationSegment> turns_;
  std::string init_error_;
  std::string process_error_;
  bool ready_ = false;
};

// Runs out of memory on the first request, like a diarizer handed more audio
// than the machine can hold, and answers later ones with one turn.
class OutOfMemoryOnceBackend : public DiarizationBackend {
 public:
  bool Init(const DiarizationInitOptions& /*options*/, std::string* /*error*/) override { return true; }
  bool IsReady() const override { return true; }
  bool Process(const std::vector<float>& /*samples*/, int /*sample_rate*/,
               std::vector<DiarizationSegment>* out, std::string* /*error*/) override {
    if (calls_++ == 0) throw std::bad_alloc();
    *out = {{0.0, 1.0, "SPEAKER_00"}};
    return true;
  }

 private:
  int calls_ = 0;
};

struct HelperRun {
  int status = -1;
  std::vector<std::string> replies;
  std::string diagnostics;
};

const std::vector<std::string> kResidentArgs = {"--resident", "--model", "/models/diar", "--backend",
                                                "offline"};

HelperRun RunHelper(const std::vector<std::string>& args, const std::string& input,
                    const DiarizationBackendFactory& factory) {
  HelperRun run;
  std::istringstream requests(input);
  std::ostringstream diagnostics;
  run.status = RunDiarizeHelper(
      args, factory, requests,
      [&run](const std::string& line) {
        run.replies.push_back(line);
        return true;
      },
      diagnostics);
  run.diagnostics = diagnostics.str();
  return run;
}

DiarizationBackendFactory Scripted(ScriptedBackend::Record* record,
                                   std::vector<DiarizationSegment> turns = {},
                                   std::string init_error = "", std::string process_error = "") {
  return [=]() -> std::unique_ptr<DiarizationBackend> {
    return std::make_unique<ScriptedBackend>(record, turns, init_error, process_error);
  };
}

std::string WriteFloatWav(const TempDir& dir, const std::string& name, std::vector<float> samples,
                          int sample_rate) {
  const std::string path = dir.File(name);
  EXPECT_TRUE(WriteWavFloat32(path, samples, sample_rate, nullptr));
  return path;
}

std::string Request(const std::string& path) { return "{\"input\":\"" + path + "\"}\n"; }

TEST(ParseDiarizeHelperArgs, ReadsTheArgumentsTheEngineSends) {
  DiarizeHelperArgs args;
  std::string error;
  ASSERT_TRUE(ParseDiarizeHelperArgs(kResidentArgs, &args, &error)) << error;
  EXPECT_TRUE(args.resident);
  EXPECT_EQ(args.model_dir, "/models/diar");
  EXPECT_EQ(args.backend, "offline");
}

TEST(ParseDiarizeHelperArgs, TheBackendIsOptional) {
  DiarizeHelperArgs args;
  ASSERT_TRUE(ParseDiarizeHelperArgs({"--resident", "--model", "/m"}, &args, nullptr));
  EXPECT_EQ(args.backend, "offline");
}

TEST(ParseDiarizeHelperArgs, RefusesAnUnknownBackend) {
  DiarizeHelperArgs args;
  std::string error;
  EXPECT_FALSE(ParseDiarizeHelperArgs({"--resident", "--model", "/m", "--backend", "sortformer"}, &args,
                                      &error));
  EXPECT_EQ(error, "unknown backend: sortformer (available: offline)");
}

TEST(ParseDiarizeHelperArgs, RequiresResidentAndAModelDirectory) {
  DiarizeHelperArgs args;
  std::string error;
  EXPECT_FALSE(ParseDiarizeHelperArgs({"--model", "/m"}, &args, &error));
  EXPECT_EQ(error, "--resident is required");
  EXPECT_FALSE(ParseDiarizeHelperArgs({"--resident"}, &args, &error));
  EXPECT_EQ(error, "--model DIR is required");
  EXPECT_FALSE(ParseDiarizeHelperArgs({"--resident", "--model"}, &args, &error));
  EXPECT_EQ(error, "--model needs a value");
  EXPECT_FALSE(ParseDiarizeHelperArgs({"--resident", "--model", "/m", "--threads", "2"}, &args, &error));
  EXPECT_EQ(error, "unknown argument: --threads");
}

TEST(RunDiarizeHelper, AnswersEachRequestWithItsTurnsThenDone) {
  TempDir dir;
  const std::string wav = WriteFloatWav(dir, "a.wav", {0.25f, -0.5f, 0.125f}, 16000);
  ScriptedBackend::Record record;
  const HelperRun run = RunHelper(
      kResidentArgs, Request(wav) + Request(wav),
      Scripted(&record, {{0.5, 1.25, "SPEAKER_00"}, {1.5, 2.0, "SPEAKER_01"}}));
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.replies, (std::vector<std::string>{"READY", "0.500\t1.250\tSPEAKER_00",
                                                   "1.500\t2.000\tSPEAKER_01", "DONE",
                                                   "0.500\t1.250\tSPEAKER_00",
                                                   "1.500\t2.000\tSPEAKER_01", "DONE"}));
  EXPECT_EQ(run.diagnostics, "");
  EXPECT_EQ(record.init_model, "/models/diar");
  ASSERT_EQ(record.processed.size(), 2u);
  EXPECT_EQ(record.processed[0], (std::vector<float>{0.25f, -0.5f, 0.125f}));
}

TEST(RunDiarizeHelper, SaysReadyAndExitsCleanlyWhenInputEndsWithoutRequests) {
  ScriptedBackend::Record record;
  const HelperRun run = RunHelper(kResidentArgs, "", Scripted(&record));
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.replies, (std::vector<std::string>{"READY"}));
}

TEST(RunDiarizeHelper, IgnoresBlankLinesSoRepliesStayInStep) {
  TempDir dir;
  const std::string wav = WriteFloatWav(dir, "a.wav", {0.1f}, 16000);
  ScriptedBackend::Record record;
  const HelperRun run =
      RunHelper(kResidentArgs, "\n  \r\n" + Request(wav) + "\n", Scripted(&record, {{0, 1, "SPEAKER_00"}}));
  EXPECT_EQ(run.replies, (std::vector<std::string>{"READY", "0.000\t1.000\tSPEAKER_00", "DONE"}));
}

TEST(RunDiarizeHelper, AnswersARequestThatIsNotJsonWithDoneAlone) {
  ScriptedBackend::Record record;
  const HelperRun run = RunHelper(kResidentArgs, "/tmp/a.wav\n", Scripted(&record, {{0, 1, "SPEAKER_00"}}));
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.replies, (std::vector<std::string>{"READY", "DONE"}));
  EXPECT_EQ(run.diagnostics, "kerrow-diarize: bad request: request is not a JSON object\n");
  EXPECT_TRUE(record.processed.empty());
}

TEST(RunDiarizeHelper, AnswersAnUnreadableFileWithDoneAlone) {
  TempDir dir;
  ScriptedBackend::Record record;
  const HelperRun run = RunHelper(kResidentArgs, Request(dir.File("missing.wav")),
                                  Scripted(&record, {{0, 1, "SPEAKER_00"}}));
  EXPECT_EQ(run.replies, (std::vector<std::string>{"READY", "DONE"}));
  EXPECT_EQ(run.diagnostics, "kerrow-diarize: cannot read " + dir.File("missing.wav") +
                                 ": WAV file not found: " + dir.File("missing.wav") + "\n");
}

TEST(RunDiarizeHelper, AnswersAWavAtAnotherSampleRateWithDoneAlone) {
  TempDir dir;
  const std::string wav = WriteFloatWav(dir, "8k.wav", {0.1f, 0.2f}, 8000);
  ScriptedBackend::Record record;
  const HelperRun run = RunHelper(kResidentArgs, Request(wav), Scripted(&record, {{0, 1, "SPEAKER_00"}}));
  EXPECT_EQ(run.replies, (std::vector<std::string>{"READY", "DONE"}));
  EXPECT_EQ(run.diagnostics, "kerrow-diarize: cannot read " + wav + ": WAV sample rate must be 16000\n");
  EXPECT_TRUE(record.processed.empty());
}

TEST(RunDiarizeHelper, AnswersAFailedDiarizationWithDoneAlone) {
  TempDir dir;
  const std::string wav = WriteFloatWav(dir, "a.wav", {0.1f}, 16000);
  ScriptedBackend::Record record;
  const HelperRun run = RunHelper(kResidentArgs, Request(wav),
                                  Scripted(&record, {{0, 1, "SPEAKER_00"}}, "", "library said no"));
  EXPECT_EQ(run.replies, (std::vector<std::string>{"READY", "DONE"}));
  EXPECT_EQ(run.diagnostics, "kerrow-diarize: diarization of " + wav + " failed: library said no\n");
}

TEST(RunDiarizeHelper, AnswersARequestThatRanOutOfMemoryWithDoneAloneAndServesTheNext) {
  TempDir dir;
  const std::string wav = WriteFloatWav(dir, "a.wav", {0.1f}, 16000);
  const HelperRun run = RunHelper(kResidentArgs, Request(wav) + Request(wav), [] {
    return std::make_unique<OutOfMemoryOnceBackend>();
  });
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.replies,
            (std::vector<std::string>{"READY", "DONE", "0.000\t1.000\tSPEAKER_00", "DONE"}));
  EXPECT_EQ(run.diagnostics,
            "kerrow-diarize: out of memory serving {\"input\":\"" + wav + "\"}\n");
}

TEST(RunDiarizeHelper, ExitsBeforeReadyOnAnUnknownBackend) {
  ScriptedBackend::Record record;
  bool factory_called = false;
  const HelperRun run = RunHelper({"--resident", "--model", "/m", "--backend", "sortformer"}, "",
                                  [&]() -> std::unique_ptr<DiarizationBackend> {
                                    factory_called = true;
                                    return nullptr;
                                  });
  EXPECT_EQ(run.status, 2);
  EXPECT_TRUE(run.replies.empty());
  EXPECT_FALSE(factory_called);
  EXPECT_EQ(run.diagnostics.rfind("kerrow-diarize: unknown backend: sortformer (available: offline)\n"
                                  "usage: kerrow-diarize --resident --model DIR",
                                  0),
            0u)
      << run.diagnostics;
}

TEST(RunDiarizeHelper, ExitsBeforeReadyWhenTheModelsDoNotLoad) {
  ScriptedBackend::Record record;
  const HelperRun run =
      RunHelper(kResidentArgs, "", Scripted(&record, {}, "Diarization segmentation model not found in /models/diar"));
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(run.replies.empty());
  EXPECT_EQ(run.diagnostics,
            "kerrow-diarize: cannot load the models in /models/diar: Diarization segmentation model not "
            "found in /models/diar\n");
}

TEST(RunDiarizeHelper, ExitsBeforeReadyWhenNoDiarizerIsBuiltIn) {
  const HelperRun run = RunHelper(kResidentArgs, "", [] { return std::unique_ptr<DiarizationBackend>(); });
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(run.replies.empty());
  EXPECT_EQ(run.diagnostics, "kerrow-diarize: the in-process diarizer is not compiled into this binary\n");
}

TEST(RunDiarizeHelper, StopsWhenTheEngineNoLongerReadsReplies) {
  TempDir dir;
  const std::string wav = WriteFloatWav(dir, "a.wav", {0.1f}, 16000);
  ScriptedBackend::Record record;
  std::istringstream requests(Request(wav) + Request(wav));
  std::ostringstream diagnostics;
  int writes = 0;
  const int status = RunDiarizeHelper(
      kResidentArgs, Scripted(&record), requests,
      [&writes](const std::string&) { return ++writes == 1; }, diagnostics);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(record.processed.size(), 1u);
}

}  // namespace
}  // namespace kerrow::testing
