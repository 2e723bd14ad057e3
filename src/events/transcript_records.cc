#include "events/transcript_records.h"

#include <cctype>

#include "events/json_escape.h"
#include "events/number_format.h"
#include "common/utf8_punc.h"

namespace kerrow {

namespace {

// Appends "key": without a separator; callers place the commas.
void AppendKey(const char* key, std::string* json) {
  *json += '"';
  *json += key;
  *json += "\":";
}

void AppendStringField(const char* key, const std::string& value, std::string* json) {
  AppendKey(key, json);
  *json += '"';
  *json += JsonEscape(value);
  *json += '"';
}

void AppendIntField(const char* key, long long value, std::string* json) {
  AppendKey(key, json);
  *json += std::to_string(value);
}

// The session id lets the host drop lines of a session it has already closed;
// it is only present when the host gave one.
void AppendSessionIdIfPresent(int session_id, std::string* json) {
  if (session_id < 0) return;
  AppendIntField("sessionId", session_id, json);
  *json += ',';
}

// Times carry two decimals for display, while the millisecond fields are what
// the host computes with; the two are formatted independently on purpose.
std::string BuildSegmentElement(const SegmentResult& segment) {
  std::string json = "{";
  AppendKey("start_time", &json);
  json += FormatFixed(segment.start_time, 2);
  json += ',';
  AppendKey("end_time", &json);
  json += FormatFixed(segment.end_time, 2);
  json += ',';
  AppendIntField("start_ms", SecondsToMs(segment.start_time), &json);
  json += ',';
  AppendIntField("end_ms", SecondsToMs(segment.end_time), &json);
  json += ',';
  AppendStringField("text", segment.text, &json);
  if (!segment.speaker.empty()) {
    json += ',';
    AppendStringField("speaker", segment.speaker, &json);
  }
  json += '}';
  return json;
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
  std::string json = "{\"type\":\"first-pass\",";
  AppendSessionIdIfPresent(session_id, &json);
  AppendIntField("segment_id", segment_id, &json);
  json += ',';
  AppendStringField("text", text, &json);
  json += ",\"mode\":\"online_partial\",";
  AppendKey("is_final", &json);
  json += is_final ? "true" : "false";
  json += '}';
  return json;
}

std::string BuildPunctuatedEventJson(int segment_id, const std::string& text, int session_id) {
  std::string json = "{\"type\":\"punctuated\",";
  AppendSessionIdIfPresent(session_id, &json);
  AppendIntField("segment_id", segment_id, &json);
  json += ',';
  AppendStringField("text", text, &json);
  json += '}';
  return json;
}

std::string BuildSecondPassResultJson(const std::vector<SegmentResult>& segments,
                                      bool offline_2pass, bool is_final, int segment_id,
                                      int segment_start_id, int segment_count,
                                      const std::string* merged_text, int session_id) {
  const std::string merged = ChooseMergedText(segments, merged_text);

  std::string json = "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\",";
  AppendSessionIdIfPresent(session_id, &json);
  if (segment_id >= 0) {
    AppendIntField("segment_id", segment_id, &json);
    json += ',';
  }
  if (segment_start_id >= 0) {
    AppendIntField("segment_start_id", segment_start_id, &json);
    json += ',';
  }
  if (segment_count >= 1) {
    AppendIntField("segment_count", segment_count, &json);
    json += ',';
  }
  if (is_final) json += "\"is_final\":true,";
  if (offline_2pass) json += "\"offline_2pass\":true,";

  AppendKey("segments", &json);
  json += '[';
  bool first = true;
  for (const SegmentResult& segment : segments) {
    if (!HasContentText(segment.text)) continue;
    if (!first) json += ',';
    first = false;
    json += BuildSegmentElement(segment);
  }
  json += ']';

  if ((offline_2pass || is_final) && !merged.empty()) {
    json += ',';
    AppendStringField("merged_text", merged, &json);
  }
  json += '}';
  return json;
}

}  // namespace kerrow
