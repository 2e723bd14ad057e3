#ifndef KERROW_LIVE_HOST_COMMAND_H_
#define KERROW_LIVE_HOST_COMMAND_H_

#include <string>

namespace kerrow {

// What one line the host wrote on standard input asks for. Only the exact
// spellings count: the host writes them itself, so anything else is a mistake
// to report rather than to guess at.
enum class HostCommandKind {
  kStart,
  kStop,
  kQuit,
  kManual,
  kAuto,
  kSetSinglePartialInterval,
  kBlank,    // an empty line: ignored without a word
  kUnknown,  // logged as an unknown command
};

struct HostCommand {
  HostCommandKind kind = HostCommandKind::kUnknown;
  double seconds = 0.0;  // the interval of kSetSinglePartialInterval
};

// Classifies one line (without its newline).
HostCommand ParseHostCommand(const std::string& line);

// Parses "set single-partial-interval <seconds>" (split at blanks, anything
// after the number ignored). False when the words differ or the number does
// not parse; such a line is an unknown command.
bool ParseSinglePartialIntervalCommand(const std::string& line, double* seconds);

}  // namespace kerrow

#endif  // KERROW_LIVE_HOST_COMMAND_H_
