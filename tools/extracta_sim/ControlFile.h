#pragma once
// Reads an extraction control file: a sequence of view blocks, each naming a
// view keyword, an optional record filter and the fields to report.
//
// The reader takes the raw bytes and either returns every block or throws
// ControlFileError; it never reads outside the given text, whatever it holds.

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace extracta_sim {

class ControlFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One "FIELD = VALUE" or "FIELD != VALUE" test.
struct Condition {
  std::string field;
  bool equal = true;  // false for "!="
  std::string value;  // without its quotes
  std::size_t line = 0;
};

// The conditions of one alternative must all hold.
using Alternative = std::vector<Condition>;

struct ViewRequest {
  std::string keyword;
  // A record passes when any alternative holds; no alternative at all means
  // every record passes.
  std::vector<Alternative> alternatives;
  // Columns in output order; empty means every field of the table.
  std::vector<std::string> fields;
  std::size_t line = 0;  // line of the keyword, for messages
};

// Parses a whole control file. Line ends may be CR LF or LF.
std::vector<ViewRequest> ParseControlFile(std::string_view text);

// Parses the text of one filter line (after its tab), e.g. "NET_NAME ='GND'"
// or "CLASS = VIA CLASS". Throws ControlFileError naming `line`.
Condition ParseCondition(std::string_view text, std::size_t line);

}  // namespace extracta_sim
