// The option tables of docs/protocol.md against the parser's own table: every
// option the parser accepts is documented once, with the right kind of value
// and the right default, and the document names no option the parser lacks.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "app/arg_parser.h"

namespace kerrow::testing {
namespace {

struct DocumentedOption {
  std::string value_kind;
  std::string default_value;
};

std::vector<std::string> SplitTableRow(const std::string& line) {
  std::vector<std::string> cells;
  std::stringstream row(line.substr(1));
  std::string cell;
  while (std::getline(row, cell, '|')) {
    const size_t first = cell.find_first_not_of(' ');
    const size_t last = cell.find_last_not_of(' ');
    cells.push_back(first == std::string::npos ? "" : cell.substr(first, last - first + 1));
  }
  return cells;
}

std::string WithoutBackticks(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c != '`') out += c;
  }
  return out;
}

// Rows of the form | `--option` | kind | default | meaning |. A second row
// for one option is recorded under a changed name so that the test sees it.
std::map<std::string, DocumentedOption> ReadDocumentedOptions() {
  std::ifstream doc(std::string(KERROW_SOURCE_DIR) + "/docs/protocol.md");
  EXPECT_TRUE(doc.good()) << "docs/protocol.md is missing";
  std::map<std::string, DocumentedOption> options;
  std::string line;
  while (std::getline(doc, line)) {
    if (line.rfind("| `--", 0) != 0) continue;
    const std::vector<std::string> cells = SplitTableRow(line);
    if (cells.size() < 4) continue;
    std::string name = WithoutBackticks(cells[0]);
    while (options.count(name) != 0) name += " (again)";
    options[name] = {cells[1], WithoutBackticks(cells[2])};
  }
  return options;
}

std::string KindWord(OptionKind kind) {
  switch (kind) {
    case OptionKind::kFlag:
      return "flag";
    case OptionKind::kText:
      return "text";
    case OptionKind::kInteger:
      return "integer";
    case OptionKind::kReal:
      return "number";
  }
  return "?";
}

// The document writes an empty text as a dash and a flag's false as "off";
// real numbers may be written with or without a fractional part.
void ExpectSameDefault(const OptionDescription& parsed, const std::string& documented) {
  switch (parsed.kind) {
    case OptionKind::kFlag:
      EXPECT_EQ(documented, "off") << parsed.name;
      break;
    case OptionKind::kText:
      EXPECT_EQ(documented, parsed.default_value.empty() ? "—" : parsed.default_value)
          << parsed.name;
      break;
    case OptionKind::kInteger:
      EXPECT_EQ(documented, parsed.default_value) << parsed.name;
      break;
    case OptionKind::kReal:
      EXPECT_EQ(std::strtod(documented.c_str(), nullptr),
                std::strtod(parsed.default_value.c_str(), nullptr))
          << parsed.name << " documented as " << documented;
      break;
  }
}

TEST(ProtocolReference, DocumentsEveryParsedOptionWithItsKindAndDefault) {
  const std::map<std::string, DocumentedOption> documented = ReadDocumentedOptions();
  for (const OptionDescription& parsed : DescribeOptions()) {
    const auto row = documented.find(parsed.name);
    if (row == documented.end()) {
      ADD_FAILURE() << parsed.name << " is accepted by the parser but not documented";
      continue;
    }
    EXPECT_EQ(row->second.value_kind, KindWord(parsed.kind)) << parsed.name;
    ExpectSameDefault(parsed, row->second.default_value);
  }
}

TEST(ProtocolReference, DocumentsNoOptionTheParserLacksAndNoneTwice) {
  std::map<std::string, bool> parsed_names;
  for (const OptionDescription& parsed : DescribeOptions()) parsed_names[parsed.name] = true;
  for (const auto& [name, row] : ReadDocumentedOptions()) {
    EXPECT_EQ(parsed_names.count(name), 1u) << name << " is documented but not parsed";
  }
}

TEST(ProtocolReference, ParserTableListsEachOptionOnce) {
  const std::vector<OptionDescription> options = DescribeOptions();
  EXPECT_EQ(options.size(), 75u);  // 12 flags, 39 texts, 11 integers, 13 reals
  for (size_t i = 1; i < options.size(); ++i) {
    EXPECT_LT(options[i - 1].name, options[i].name);
  }
}

}  // namespace
}  // namespace kerrow::testing
