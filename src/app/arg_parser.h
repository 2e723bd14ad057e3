#ifndef KERROW_APP_ARG_PARSER_H_
#define KERROW_APP_ARG_PARSER_H_

#include <string>
#include <vector>

#include "common/options.h"

namespace kerrow {

// Fills `options` (default-initialised by the caller) from the command line and
// validates it. True when the program may go on. On false, `error` holds
// either "help" (usage was asked for) or a one-line message for the host. Returns
// false at once, writing nothing, when either pointer is null. Writes nothing
// to any stream.
bool ParseArgs(int argc, char** argv, Options* options, std::string* error);

// Writes the usage text to standard error; standard output carries the host
// protocol and must never see it.
void PrintUsage();

// Canonical first-pass model type ("transducer" or "paraformer"; "zipformer"
// is a transducer), compared case-insensitively. Empty when not recognised.
std::string NormalizeFirstModelType(std::string value);

// Canonical second-pass type ("sensevoice", also spelled "sense-voice", or
// "whisper"), compared case-insensitively. Empty when not recognised.
std::string NormalizeSecondType(std::string value);

// How an option takes its value on the command line.
enum class OptionKind { kFlag, kText, kInteger, kReal };

// One entry of the parser's option tables: the option as spelled on the
// command line, how it takes its value, and the default of the field it writes
// as text (empty for an empty text, "false" for a flag, numbers as a stream
// prints them). The parser does not use this; it is what the protocol
// reference is checked against, so a new option cannot go undocumented.
struct OptionDescription {
  std::string name;
  OptionKind kind;
  std::string default_value;
};

// Every option ParseArgs accepts, ordered by name.
std::vector<OptionDescription> DescribeOptions();

}  // namespace kerrow

#endif  // KERROW_APP_ARG_PARSER_H_
