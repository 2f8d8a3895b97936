#include "tools/extracta_sim/ControlFile.h"

namespace extracta_sim {

namespace {

struct Line {
  std::string_view text;  // without its line end
  std::size_t number = 0;
};

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

std::string LineError(std::size_t line, const std::string& what) {
  return "control file line " + std::to_string(line) + ": " + what;
}

std::vector<Line> SplitLines(std::string_view text) {
  std::vector<Line> lines;
  std::size_t pos = 0;
  std::size_t number = 1;
  while (pos < text.size()) {
    const std::size_t newline = text.find('\n', pos);
    const std::size_t end = newline == std::string_view::npos ? text.size() : newline;
    std::string_view line = text.substr(pos, end - pos);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    lines.push_back({line, number++});
    pos = newline == std::string_view::npos ? text.size() : newline + 1;
  }
  return lines;
}

bool IsTabLine(const Line& line) { return !line.text.empty() && line.text.front() == '\t'; }

// What is left of a tab line once its leading tab is gone.
std::string_view Content(const Line& line) { return Trim(line.text.substr(1)); }

// A part of a block that holds nothing but one tab line with no text stands
// for "no filter" or "no fields".
bool IsPlaceholder(const std::vector<Line>& group) {
  return group.size() == 1 && Content(group.front()).empty();
}

// Inside a block, between the keyword's empty line and END: runs of tab lines
// (parts) separated by single empty lines.
struct BlockBody {
  std::vector<std::vector<Line>> parts;
  bool emptyLineBeforeEnd = false;
  std::size_t endLine = 0;
};

BlockBody ReadBody(const std::vector<Line>& lines, std::size_t& i, const std::string& keyword,
                   std::size_t keywordLine) {
  BlockBody body;
  bool afterEmpty = false;
  while (true) {
    if (i == lines.size()) {
      throw ControlFileError("control file: view block '" + keyword + "' at line " +
                             std::to_string(keywordLine) + " is not closed by END");
    }
    const Line& line = lines[i];
    if (IsTabLine(line)) {
      std::vector<Line> part;
      while (i < lines.size() && IsTabLine(lines[i])) part.push_back(lines[i++]);
      body.parts.push_back(std::move(part));
      afterEmpty = false;
    } else if (line.text.empty()) {
      if (afterEmpty) {
        throw ControlFileError(
            LineError(line.number, "two empty lines in a row inside view block '" + keyword + "'"));
      }
      afterEmpty = true;
      ++i;
    } else if (line.text == "END") {
      body.emptyLineBeforeEnd = afterEmpty;
      body.endLine = line.number;
      ++i;
      return body;
    } else {
      throw ControlFileError(
          LineError(line.number, "unexpected line '" + std::string(line.text) +
                                     "' inside view block '" + keyword +
                                     "' (filter and field lines begin with a tab; END closes "
                                     "a block)"));
    }
  }
}

std::vector<std::string> ReadFields(const std::vector<Line>& part, const std::string& keyword) {
  std::vector<std::string> fields;
  for (const Line& line : part) {
    const std::string_view name = Content(line);
    if (name.empty()) {
      throw ControlFileError(
          LineError(line.number, "empty field line in the field list of view '" + keyword + "'"));
    }
    if (name.find('=') != std::string_view::npos) {
      throw ControlFileError(LineError(line.number, "filter condition '" + std::string(name) +
                                                        "' in the field list of view '" + keyword +
                                                        "' (is the empty line after the filter "
                                                        "missing?)"));
    }
    fields.emplace_back(name);
  }
  return fields;
}

std::vector<Alternative> ReadFilter(const std::vector<Line>& part, const std::string& keyword) {
  std::vector<Alternative> alternatives(1);
  std::size_t startLine = part.front().number;
  auto closeAlternative = [&](std::size_t line) {
    if (alternatives.back().empty()) {
      throw ControlFileError(LineError(
          line, "alternative without conditions in the filter of view '" + keyword + "'"));
    }
  };
  for (const Line& line : part) {
    const std::string_view content = Content(line);
    if (content == "OR") {
      closeAlternative(line.number);
      alternatives.emplace_back();
      startLine = line.number;
    } else if (!content.empty()) {
      alternatives.back().push_back(ParseCondition(content, line.number));
    }
  }
  closeAlternative(startLine);
  return alternatives;
}

ViewRequest ReadBlock(const std::vector<Line>& lines, std::size_t& i) {
  ViewRequest request;
  const Line& keywordLine = lines[i++];
  request.keyword = std::string(Trim(keywordLine.text));
  request.line = keywordLine.number;
  if (request.keyword.empty()) {
    throw ControlFileError(
        LineError(keywordLine.number, "blank line where a view keyword belongs"));
  }
  if (request.keyword == "END") {
    throw ControlFileError(LineError(keywordLine.number, "END without a view block"));
  }
  if (i == lines.size() || !lines[i].text.empty()) {
    throw ControlFileError(
        LineError(keywordLine.number + 1,
                  "expected an empty line after the view keyword '" + request.keyword + "'"));
  }
  ++i;

  const BlockBody body = ReadBody(lines, i, request.keyword, request.line);
  const auto malformed = [&](const std::string& what) {
    return ControlFileError(
        LineError(body.endLine, "view block '" + request.keyword + "': " + what));
  };
  if (body.parts.empty()) throw malformed("no filter or field lines before END");
  if (body.parts.size() > 2) throw malformed("more than a filter part and a field part");

  const std::vector<Line>& fieldPart = body.parts.back();
  if (IsPlaceholder(fieldPart)) {
    // "no fields" is a single tab line followed directly by END.
    if (body.emptyLineBeforeEnd) throw malformed("empty line between the lone tab line and END");
  } else {
    if (!body.emptyLineBeforeEnd) throw malformed("expected an empty line before END");
    request.fields = ReadFields(fieldPart, request.keyword);
  }
  if (body.parts.size() == 2)
    request.alternatives = ReadFilter(body.parts.front(), request.keyword);

  if (i < lines.size() && !lines[i].text.empty()) {
    throw ControlFileError(LineError(lines[i].number, "expected an empty line after END"));
  }
  return request;
}

}  // namespace

Condition ParseCondition(std::string_view text, std::size_t line) {
  const std::string shown = "'" + std::string(text) + "'";
  const std::size_t eq = text.find('=');
  if (eq == std::string_view::npos) {
    throw ControlFileError(LineError(line, "filter line " + shown + " has no '=' or '!='"));
  }
  Condition condition;
  condition.line = line;
  condition.equal = !(eq > 0 && text[eq - 1] == '!');
  condition.field = std::string(Trim(text.substr(0, condition.equal ? eq : eq - 1)));
  if (condition.field.empty()) {
    throw ControlFileError(LineError(line, "filter line " + shown + " names no field"));
  }
  std::string_view value = Trim(text.substr(eq + 1));
  if (!value.empty() && value.front() == '\'') {
    // Quotes inside a quoted value are not escaped: the value runs to the
    // last quote of the line.
    const std::size_t closing = value.rfind('\'');
    if (closing == 0) {
      throw ControlFileError(LineError(line, "filter line " + shown + " has an unclosed quote"));
    }
    if (closing != value.size() - 1) {
      throw ControlFileError(
          LineError(line, "filter line " + shown + " has text after its closing quote"));
    }
    value = value.substr(1, closing - 1);
  }
  condition.value = std::string(value);
  return condition;
}

std::vector<ViewRequest> ParseControlFile(std::string_view text) {
  const std::vector<Line> lines = SplitLines(text);
  std::vector<ViewRequest> requests;
  std::size_t i = 0;
  while (true) {
    while (i < lines.size() && lines[i].text.empty()) ++i;
    if (i == lines.size()) break;
    if (IsTabLine(lines[i])) {
      throw ControlFileError(
          LineError(lines[i].number, "expected a view keyword, found a filter or field line"));
    }
    requests.push_back(ReadBlock(lines, i));
  }
  return requests;
}

}  // namespace extracta_sim
