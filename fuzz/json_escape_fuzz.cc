// Any text a recognizer, a file name or a speaker label can bring into an
// event: the escaped form is always a valid JSON string of valid UTF-8, text
// that was valid comes back byte for byte, and the records built around it
// parse as JSON.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "events/json_escape.h"
#include "events/segment_result.h"
#include "events/transcript_records.h"
#include "fuzz_check.h"
#include "support/strict_json.h"

namespace {

void CheckEscape(const std::string& text) {
  const std::string escaped = kerrow::JsonEscape(text);
  std::string decoded;
  FUZZ_CHECK(kerrow::testing::StrictJson(escaped).ParseStringBody(&decoded), "not a valid JSON string");
  if (kerrow::testing::StrictJson::IsValidUtf8(text)) {
    FUZZ_CHECK(decoded == text, "valid text did not come back as it was");
  }
}

void CheckRecords(FuzzedDataProvider* input) {
  const std::string text = input->ConsumeRandomLengthString(256);
  const std::string speaker = input->ConsumeRandomLengthString(64);
  const int segment_id = input->ConsumeIntegral<int>();
  const int session_id = input->ConsumeIntegral<int>();
  const bool is_final = input->ConsumeBool();
  FUZZ_CHECK(kerrow::testing::StrictJson(kerrow::BuildFirstPassEventJson(segment_id, text, is_final, session_id))
                 .ParseDocument(),
             "first-pass record");
  FUZZ_CHECK(kerrow::testing::StrictJson(kerrow::BuildPunctuatedEventJson(segment_id, text, session_id))
                 .ParseDocument(),
             "punctuated record");
  // Times come from sample counts, so they are always finite.
  kerrow::SegmentResult segment;
  segment.start_time = input->ConsumeIntegral<uint32_t>() / 16000.0;
  segment.end_time = segment.start_time + input->ConsumeIntegral<uint16_t>() / 16000.0;
  segment.text = text;
  segment.speaker = speaker;
  const std::vector<kerrow::SegmentResult> segments{segment, segment};
  const std::string merged = text + speaker;
  const std::string record = kerrow::BuildSecondPassResultJson(
      segments, input->ConsumeBool(), is_final, segment_id, input->ConsumeIntegralInRange<int>(-1, 100),
      input->ConsumeIntegralInRange<int>(-1, 100), input->ConsumeBool() ? &merged : nullptr, session_id);
  FUZZ_CHECK(kerrow::testing::StrictJson(record).ParseDocument(), "result record");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CheckEscape(std::string(reinterpret_cast<const char*>(data), size));
  FuzzedDataProvider input(data, size);
  CheckRecords(&input);
  return 0;
}
