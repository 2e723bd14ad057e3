#ifndef KERROW_DIARIZATION_HELPER_LINE_PROTOCOL_H_
#define KERROW_DIARIZATION_HELPER_LINE_PROTOCOL_H_

#include <map>
#include <string>

#include "diarization/diarization_backend.h"

namespace kerrow {

// The line protocol between the engine and a resident diarization helper:
// the engine sends one request line {"input":"PATH"} naming a 32-bit float WAV,
// the helper answers with one "start TAB end TAB label" line per turn and then
// a line "DONE". Both sides of the protocol live here so that they cannot
// drift apart.

// The helper's handshake line, sent once its models are loaded.
constexpr char kHelperReadyLine[] = "READY";
// Ends every reply, also a reply to a request the helper could not serve.
constexpr char kHelperDoneLine[] = "DONE";

// {"input":"PATH"} without blanks and without its newline; only backslash and
// double quote are escaped, which is all a file path needs.
std::string FormatHelperRequest(const std::string& wav_path);

// Reads the request line back: a JSON object whose "input" member is a string.
// Other members are ignored. False with one message in error when the line is
// not such an object.
bool ParseHelperRequest(const std::string& line, std::string* wav_path,
                        std::string* error);

// One turn as the helper writes it: start and end with three decimals.
std::string FormatHelperTurn(const DiarizationSegment& turn);

// Splits a reply line into a turn. Start is the text before the first tab, end
// the text between the first and second tab, the label everything after the
// second tab. The numbers only need to start the field. False for a line that
// is not a turn (fewer than two tabs, a field that does not start with a
// number, or end not after start): the engine skips such lines.
bool ParseHelperTurn(const std::string& line, DiarizationSegment* turn);

// Gives the helper's labels the engine's names in order of first appearance
// (SPEAKER_00, SPEAKER_01, ...), so that the labels of one reply read the same
// whichever helper produced them.
class HelperLabelMap {
 public:
  std::string Map(const std::string& helper_label);

 private:
  std::map<std::string, std::string> names_;
};

}  // namespace kerrow

#endif  // KERROW_DIARIZATION_HELPER_LINE_PROTOCOL_H_
