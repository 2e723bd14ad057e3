#include "events/json_escape.h"

namespace kerrow {

std::string JsonEscape(const std::string& text) {
  std::string escaped;
  // Most texts need no escape at all; a little slack covers the common few.
  escaped.reserve(text.size() + 8);
  for (const char byte : text) {
    switch (byte) {
      case '\t':
        escaped += "\\t";
        break;
      case '\n':
        escaped += "\\n";
        break;
      case '\r':
        escaped += "\\r";
        break;
      case '"':
        escaped += "\\\"";
        break;
      case '\\':
        escaped += "\\\\";
        break;
      default:
        escaped += byte;
        break;
    }
  }
  return escaped;
}

}  // namespace kerrow
