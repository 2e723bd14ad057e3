#include "events/transcript_records.h"

#include <cctype>

#include "events/json_object.h"
#include "events/number_format.h"
#include "common/utf8_punc.h"

namespace kerrow {

namespace {

// The session id lets the host drop lines of a session it has already closed;
// it is only present when the host gave one.
void AddSessionIdIfPresent(int session_id, JsonObject* json) {
  if (session_id >= 0) json->AddInt("sessionId", session_id);
}

// Times carry two decimals for display, while the millisecond fields are what
// the host computes with; the two are formatted independently on purpose.
std::string BuildSegmentElement(const SegmentResult& segment) {
  JsonObject json;
  json.AddRaw("start_time", FormatFixed(segment.start_time, 2))
      .AddRaw("end_time", FormatFixed(segment.end_time, 2))
      .AddInt("start_ms", SecondsToMs(segment.start_time))
      .AddInt("end_ms", SecondsToMs(segment.end_time))
      .AddString("text", segment.text);
  if (!segment.speaker.empty()) json.AddString("speaker", segment.speaker);
  return json.Text();
}

std::string BuildSegmentsArray(const std::vector<SegmentResult>& segments) {
  std::vector<std::string> elements;
  for (const SegmentResult& segment : segments) {
    if (HasContentText(segment.text)) elements.push_back(BuildSegmentElement(segment));
  }
  return JsonArray(elements);
}

std::string JoinContentTexts(const std::vector<SegmentResult>& segments) {
  std::string joined;
  for (const SegmentResult& segment : segments) {
    if (!HasContentText(segment.text)) continue;
    if (!joined.empty()) joined += ' ';
    joined += segment.text;
  }
  return joined;
}

std::string ChooseMergedText(const std::vector<SegmentResult>& segments,
                             const std::string* merged_text) {
  if (merged_text == nullptr) return JoinContentTexts(segments);
  return HasContentText(*merged_text) ? *merged_text : std::string();
}

}  // namespace

bool HasContentText(const std::string& text) {
  for (const char byte : StripPuncForPuncModel(text)) {
    if (std::isspace(static_cast<unsigned char>(byte)) == 0) return true;
  }
  return false;
}

std::string BuildFirstPassEventJson(int segment_id, const std::string& text, bool is_final,
                                    int session_id) {
  JsonObject json;
  json.AddString("type", "first-pass");
  AddSessionIdIfPresent(session_id, &json);
  json.AddInt("segment_id", segment_id)
      .AddString("text", text)
      .AddString("mode", "online_partial")
      .AddBool("is_final", is_final);
  return json.Text();
}

std::string BuildPunctuatedEventJson(int segment_id, const std::string& text, int session_id) {
  JsonObject json;
  json.AddString("type", "punctuated");
  AddSessionIdIfPresent(session_id, &json);
  json.AddInt("segment_id", segment_id).AddString("text", text);
  return json.Text();
}

std::string BuildSecondPassResultJson(const std::vector<SegmentResult>& segments,
                                      bool offline_2pass, bool is_final, int segment_id,
                                      int segment_start_id, int segment_count,
                                      const std::string* merged_text, int session_id) {
  JsonObject json;
  json.AddString("type", "result").AddString("stage", "second-pass").AddString("mode", "offline_final");
  AddSessionIdIfPresent(session_id, &json);
  if (segment_id >= 0) json.AddInt("segment_id", segment_id);
  if (segment_start_id >= 0) json.AddInt("segment_start_id", segment_start_id);
  if (segment_count >= 1) json.AddInt("segment_count", segment_count);
  if (is_final) json.AddBool("is_final", true);
  if (offline_2pass) json.AddBool("offline_2pass", true);
  json.AddRaw("segments", BuildSegmentsArray(segments));

  const std::string merged = ChooseMergedText(segments, merged_text);
  if ((offline_2pass || is_final) && !merged.empty()) json.AddString("merged_text", merged);
  return json.Text();
}

}  // namespace kerrow
