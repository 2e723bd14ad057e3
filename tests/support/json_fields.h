#ifndef KERROW_TESTS_SUPPORT_JSON_FIELDS_H_
#define KERROW_TESTS_SUPPORT_JSON_FIELDS_H_

// Reads fields out of the JSON lines kerrow writes, for assertions. The one
// place tests take a line apart; a line is judged whole by StrictJson.

#include <string>
#include <vector>

namespace kerrow::testing {

// The decoded value of a top-level string field, e.g.
// JsonStringField(line, "merged_text"); "" if absent or the line is not strict JSON.
std::string JsonStringField(const std::string& json_line, const std::string& key);

// The integer after the first `"key":` anywhere in the line (top level or
// nested, such as "segment_id"); `missing` when there is none.
long JsonIntField(const std::string& line, const std::string& key, long missing = -999);

// The number after the first `"key":` ("start_time" etc.), read as a double; -1 when absent.
double JsonNumberField(const std::string& line, const std::string& key);

// The first "text" value of a record (inside "segments" for results), with the
// escapes these texts use undone.
std::string JsonTextField(const std::string& line);

// True when line is a {"message":"…","type":"<type>"} event; *message then
// receives the message, decoded.
bool ParseEventMessage(const std::string& line, const std::string& type, std::string* message);

// The messages of the log events among lines, in order.
std::vector<std::string> LogMessages(const std::vector<std::string>& lines);

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_JSON_FIELDS_H_
