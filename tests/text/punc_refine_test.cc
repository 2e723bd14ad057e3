#include "text/punc_refine.h"

#include <gtest/gtest.h>

#include <cctype>
#include <memory>
#include <string>
#include <vector>

#include "engine/punc_backend.h"
#include "events/event_emitter.h"
#include "support/json_fields.h"
#include "support/stdout_capture.h"
#include "common/utf8_punc.h"

namespace kerrow::testing {
namespace {


// The stub answers by a fixed table: "hello world how are you" becomes
// "hello world，how are you？". The trained model really punctuates English.
const char kStubModel[] = KERROW_MODELS_DIR "/stubs/punct/model.onnx";
const char kTrainedModel[] = KERROW_MODELS_DIR "/trained/punct-en/model.onnx";

// Seen with the trained model: the library stops after "you。" and silently
// drops "die is a nice day".
const char kDroppingInput[] =
    "the rain in spain stays mainly in the plain and the bob is a red light in p m for "
    "traffic tickets hope that the day after you die is a nice day";

PuncBackend* LoadedBackend(const char* model) {
  auto backend = std::make_unique<PuncBackend>();
  PuncInitOptions options;
  options.model = model;
  std::string error;
  if (!backend->Init(options, &error)) {
    ADD_FAILURE() << "cannot load " << model << ": " << error;
  }
  return backend.release();
}

PuncBackend* Stub() {
  static PuncBackend* backend = LoadedBackend(kStubModel);
  return backend;
}

PuncBackend* Trained() {
  static PuncBackend* backend = LoadedBackend(kTrainedModel);
  return backend;
}

TEST(RefineTextWithPunc, PunctuatesWithModel) {
  EventEmitter emitter;
  StdoutCapture capture;
  const std::string refined = RefineTextWithPunc(Stub(), &emitter, "hello world how are you");
  EXPECT_TRUE(capture.Stop().empty());
  // The library drops the blank after a full-width mark; that is no lost word.
  EXPECT_EQ(refined, "hello world，how are you？");
}

TEST(RefineTextWithPunc, StripsOldMarksBeforeTheModel) {
  EXPECT_EQ(RefineTextWithPunc(Stub(), nullptr, "hello, world! how are you"),
            "hello world，how are you？");
}

// The library writes no blank after a full-width mark ("world，how"); punctuating
// such a text again (the merged transcript) must not weld the two words together.
TEST(RefineTextWithPunc, FullWidthMarkBetweenEnglishWordsKeepsTheWordsApart) {
  EventEmitter emitter;
  StdoutCapture capture;
  const std::string refined = RefineTextWithPunc(
      Trained(), &emitter, "speech recognition，converts spoken words into text。today is monday");
  EXPECT_EQ(refined.find("recognitionconverts"), std::string::npos) << refined;
  EXPECT_EQ(refined.find("texttoday"), std::string::npos) << refined;
  EXPECT_NE(refined.find("recognition"), std::string::npos) << refined;
  EXPECT_NE(refined.find("converts"), std::string::npos) << refined;
  EXPECT_NE(refined.find("today is monday"), std::string::npos) << refined;
}

TEST(RefineTextWithPunc, WithoutModelReturnsTextUnchanged) {
  EXPECT_EQ(RefineTextWithPunc(nullptr, nullptr, "hello world"), "hello world");
  PuncBackend not_loaded;
  EXPECT_EQ(RefineTextWithPunc(&not_loaded, nullptr, "hello world"), "hello world");
}

TEST(RefineTextWithPunc, PunctuationOnlyTextIsReturnedUnchanged) {
  EventEmitter emitter;
  StdoutCapture capture;
  EXPECT_EQ(RefineTextWithPunc(Stub(), &emitter, "。"), "。");
  EXPECT_EQ(RefineRealtimeTextWithPunc(Stub(), &emitter, "。", true), "。");
  std::string context = "abc";
  EXPECT_EQ(ApplyRealtimePunc(Stub(), &emitter, "。", &context, 4, false), "。");
  EXPECT_EQ(context, "abc");
  EXPECT_TRUE(capture.Stop().empty());
}

TEST(ApplyRealtimePunc, BlankAndMarkTextAfterAContextTakesNothingFromTheContext) {
  // The text's plain form is a single blank; matched against the model's
  // output it would have found the blank inside the context and returned the
  // context's last word as this segment's text.
  std::string context = "hello world";
  EXPECT_EQ(ApplyRealtimePunc(Trained(), nullptr, " ?", &context, 4, false), " ?");
  EXPECT_EQ(context, "hello world");
  EXPECT_EQ(RefineTextWithPunc(Trained(), nullptr, " ?"), " ?");
}

TEST(RefineTextWithPunc, WordsDroppedByModelArePunctuatedOnTheirOwnAndAppended) {
  EventEmitter emitter;
  StdoutCapture capture;
  const std::string refined = RefineTextWithPunc(Trained(), &emitter, kDroppingInput);
  const std::vector<std::string> logs = LogMessages(capture.Stop());
  EXPECT_EQ(refined,
            "the rain in spain stays mainly in the plain and the bob is a red light in p m for "
            "traffic tickets。hope that the day after you。die is a nice day。");
  EXPECT_EQ(logs, std::vector<std::string>{
                      "[PUNC] model dropped the words \"die is a nice day\" after its last "
                      "sentence mark; punctuated them on their own and appended them"});
}

TEST(RefineTextWithPunc, OutputWithChangedWordsKeepsTheUnpunctuatedText) {
  // The library splits "3.14" into "3 . 14", and the point no longer sits
  // between two digits: the words changed, so the input is kept.
  EventEmitter emitter;
  StdoutCapture capture;
  const std::string refined =
      RefineTextWithPunc(Trained(), &emitter, "pi is 3.14 and that is a fact");
  const std::vector<std::string> logs = LogMessages(capture.Stop());
  EXPECT_EQ(refined, "pi is 3.14 and that is a fact");
  EXPECT_EQ(logs, std::vector<std::string>{"Punctuation refine failed: punctuation model "
                                           "changed the words of its input"});
}

TEST(PunctuateKeepingEveryWord, FailureOfTheBackendLeavesInputAndError) {
  PuncBackend not_loaded;
  std::string output;
  std::string error;
  EXPECT_FALSE(PunctuateKeepingEveryWord(&not_loaded, nullptr, "hello", &output, &error));
  EXPECT_EQ(output, "hello");
  EXPECT_EQ(error, "Punctuation backend is not initialized");
}

TEST(RefineRealtimeTextWithPunc, NotFinalDropsTheClosingMark) {
  EXPECT_EQ(RefineRealtimeTextWithPunc(Stub(), nullptr, "hello world how are you", false),
            "hello world，how are you");
}

TEST(RefineRealtimeTextWithPunc, FinalKeepsTheModelsClosingMark) {
  EXPECT_EQ(RefineRealtimeTextWithPunc(Stub(), nullptr, "hello world how are you", true),
            "hello world，how are you？");
}

TEST(RefineRealtimeTextWithPunc, FinalWithoutMarkGetsFullStop) {
  EXPECT_EQ(RefineRealtimeTextWithPunc(nullptr, nullptr, "hello", true), "hello。");
}

TEST(ApplyRealtimePunc, ContextIsPunctuatedWithTheTextAndOnlyTheTailIsKept) {
  std::string context = "hello world ";
  EventEmitter emitter;
  StdoutCapture capture;
  const std::string result =
      ApplyRealtimePunc(Stub(), &emitter, "how are you", &context, 3, false);
  EXPECT_TRUE(capture.Stop().empty());
  // The model saw "hello world how are you"; the comma it put at the boundary
  // travels with the new segment.
  EXPECT_EQ(result, "，how are you");
  EXPECT_EQ(context, "you");
}

TEST(ApplyRealtimePunc, FinalSegmentEndsInSentenceMark) {
  std::string context;
  EXPECT_EQ(ApplyRealtimePunc(Stub(), nullptr, "hello world how are you", &context, 5, true),
            "hello world，how are you？");
  EXPECT_EQ(context, "e you");
}

TEST(ApplyRealtimePunc, ZeroContextCodepointsEmptiesTheContext) {
  std::string context = "hello world ";
  ApplyRealtimePunc(Stub(), nullptr, "how are you", &context, 0, false);
  EXPECT_EQ(context, "");
  // With an empty context the next segment is punctuated alone.
  EXPECT_EQ(ApplyRealtimePunc(Stub(), nullptr, "hello world how are you", &context, 0, false),
            "hello world，how are you");
}

TEST(ApplyRealtimePunc, ModelChangingTheWordsYieldsUnpunctuatedTextAndKeepsContext) {
  std::string context = "abc";
  EventEmitter emitter;
  StdoutCapture capture;
  const std::string result =
      ApplyRealtimePunc(Trained(), &emitter, "pi is 3.14", &context, 4, false);
  const std::vector<std::string> logs = LogMessages(capture.Stop());
  EXPECT_EQ(result, "pi is 3.14");
  EXPECT_EQ(context, "abc");
  EXPECT_EQ(logs, std::vector<std::string>{"Punctuation refine failed: punctuation model "
                                           "changed the words of its input"});
}

TEST(ApplyRealtimePunc, WithoutModelLeavesTextAndContext) {
  std::string context = "abc";
  EXPECT_EQ(ApplyRealtimePunc(nullptr, nullptr, "text", &context, 4, true), "text");
  EXPECT_EQ(context, "abc");
}

TEST(ExtractTailByPlain, CommaBeforeTheTailTravelsWithIt) {
  EXPECT_EQ(ExtractTailByPlain("今天天气，很好。", "很好", "很好"), "，很好。");
}

TEST(ExtractTailByPlain, BlankBetweenMarkAndTailTravelsButBlankBeforeMarkStays) {
  EXPECT_EQ(ExtractTailByPlain("one two , three", "three", "three"), ", three");
}

// The context "go go" and the segment "go go" glued together; the model
// replaced the segment's blank with a mark. Matching blank for blank would
// find the tail only at the start and hand back the context as well.
TEST(ExtractTailByPlain, BlankTheModelReplacedStillFindsTheTailAtTheEnd) {
  EXPECT_EQ(ExtractTailByPlain("go gogo，go", "go go", "go go"), "go，go");
}

TEST(ExtractTailByPlain, TailNotFoundGivesFallback) {
  EXPECT_EQ(ExtractTailByPlain("今天天气，很棒。", "很好", "很好"), "很好");
  EXPECT_EQ(ExtractTailByPlain("今天天气，很棒。", "很好", ""), "今天天气，很棒。");
}

TEST(ExtractTailByPlain, EmptyTailGivesPunctuatedText) {
  EXPECT_EQ(ExtractTailByPlain("a，b。", "", "x"), "a，b。");
  EXPECT_EQ(ExtractTailByPlain("a，b。", "。", "x"), "x");
}

TEST(ExtractTailByPlain, LastOccurrenceWins) {
  EXPECT_EQ(ExtractTailByPlain("好，好。", "好", "好"), "，好。");
}

TEST(ExtractTailByPlain, DecimalPointStaysWithTheNumber) {
  EXPECT_EQ(ExtractTailByPlain("价格，3.14元。", "3.14元", "3.14元"), "，3.14元。");
}

TEST(EmitPunctuatedForPartial, EmitsPunctuatedEvent) {
  EventEmitter emitter;
  StdoutCapture capture;
  EmitPunctuatedForPartial(Stub(), &emitter, 3, "hello world how are you", 7);
  EXPECT_EQ(capture.Stop(),
            std::vector<std::string>{
                R"({"type":"punctuated","sessionId":7,"segment_id":3,"text":"hello world，how are you？"})"});
}

TEST(EmitPunctuatedForPartial, ModelFailureIsLoggedWithSegmentId) {
  EventEmitter emitter;
  StdoutCapture capture;
  EmitPunctuatedForPartial(Trained(), &emitter, 3, "pi is 3.14", -1);
  EXPECT_EQ(LogMessages(capture.Stop()),
            std::vector<std::string>{
                "Punc failed (seg=3): punctuation model changed the words of its input"});
}

TEST(EmitPunctuatedForPartial, NothingWithoutModelOrText) {
  EventEmitter emitter;
  PuncBackend not_loaded;
  StdoutCapture capture;
  EmitPunctuatedForPartial(nullptr, &emitter, 1, "hello", -1);
  EmitPunctuatedForPartial(&not_loaded, &emitter, 1, "hello", -1);
  EmitPunctuatedForPartial(Stub(), &emitter, 1, "", -1);
  EmitPunctuatedForPartial(Stub(), nullptr, 1, "hello", -1);
  EXPECT_TRUE(capture.Stop().empty());
}

}  // namespace
}  // namespace kerrow::testing

namespace kerrow::testing {
namespace {

const char kApostropheText[] = "i don't know what it's like but it's fine with me";

// Every word of the input, apostrophes included, in order, whatever marks the
// model put between them.
void ExpectSameWordsAsApostropheText(const std::string& punctuated) {
  std::string words;
  bool in_word = false;
  for (const char c : punctuated) {
    const bool word_char = std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '\'';
    if (word_char && !in_word && !words.empty()) words += ' ';
    if (word_char) words += c;
    in_word = word_char;
  }
  EXPECT_EQ(words, kApostropheText) << punctuated;
}

TEST(RefineTextWithPunc, ApostropheInsideAWordSurvivesTheTrainedModel) {
  const std::string refined = RefineTextWithPunc(Trained(), nullptr, kApostropheText);
  EXPECT_NE(refined.find("don't"), std::string::npos) << refined;
  EXPECT_NE(refined.find("it's like"), std::string::npos) << refined;
  ExpectSameWordsAsApostropheText(refined);
}

TEST(RefineRealtimeTextWithPunc, ApostropheSurvivesAndTheSentenceIsClosed) {
  const std::string refined = RefineRealtimeTextWithPunc(Trained(), nullptr, kApostropheText, true);
  EXPECT_NE(refined.find("don't"), std::string::npos) << refined;
  EXPECT_TRUE(EndsWith(refined, "。")) << refined;
}

TEST(ApplyRealtimePunc, ApostropheSurvivesInTheTailCutFromTheContext) {
  std::string context = "the weather is nice today";
  const std::string result =
      ApplyRealtimePunc(Trained(), nullptr, kApostropheText, &context, 24, false);
  EXPECT_NE(result.find("don't"), std::string::npos) << result;
  ExpectSameWordsAsApostropheText(result);
  // The context stays plain text, as the model is given it.
  EXPECT_EQ(context.find('\''), std::string::npos) << context;
}

TEST(EmitPunctuatedForPartial, ApostropheSurvivesInThePunctuatedEvent) {
  EventEmitter emitter;
  StdoutCapture capture;
  EmitPunctuatedForPartial(Trained(), &emitter, 4, kApostropheText, -1);
  const std::vector<std::string> lines = capture.Stop();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("\"type\":\"punctuated\""), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("don't"), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("it's fine"), std::string::npos) << lines[0];
}

}  // namespace
}  // namespace kerrow::testing
