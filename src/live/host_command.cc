#include "live/host_command.h"

#include <sstream>

namespace kerrow {

HostCommand ParseHostCommand(const std::string& line) {
  HostCommand command;
  if (line == "start") {
    command.kind = HostCommandKind::kStart;
  } else if (line == "stop") {
    command.kind = HostCommandKind::kStop;
  } else if (line == "quit") {
    command.kind = HostCommandKind::kQuit;
  } else if (line == "manual") {
    command.kind = HostCommandKind::kManual;
  } else if (line == "auto") {
    command.kind = HostCommandKind::kAuto;
  } else if (line.empty()) {
    command.kind = HostCommandKind::kBlank;
  } else if (ParseSinglePartialIntervalCommand(line, &command.seconds)) {
    command.kind = HostCommandKind::kSetSinglePartialInterval;
  }
  return command;
}

bool ParseSinglePartialIntervalCommand(const std::string& line, double* seconds) {
  std::istringstream words(line);
  std::string verb;
  std::string name;
  double value = 0.0;
  if (!(words >> verb >> name >> value)) return false;
  if (verb != "set" || name != "single-partial-interval") return false;
  if (seconds != nullptr) *seconds = value;
  return true;
}

}  // namespace kerrow
