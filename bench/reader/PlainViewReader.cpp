#include "bench/reader/PlainViewReader.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include "core/ExtractaParserException.h"

namespace {

class Cursor {
 public:
  Cursor(const char* first, const char* last) : p_(first), last_(last) {}

  bool atEnd() const { return p_ == last_; }

  bool take(char a, char b) {
    if (last_ - p_ < 2 || p_[0] != a || p_[1] != b) return false;
    p_ += 2;
    return true;
  }

  // Fields up to the record's end, then any blank lines after it.
  ExtractaViewData::Row fieldList() {
    ExtractaViewData::Row fields;
    for (;;) {
      const char* begin = p_;
      while (p_ != last_ && *p_ != '!' && !lineEndHere()) ++p_;
      fields.emplace_back(begin, p_);
      if (p_ == last_ || *p_ != '!') break;
      ++p_;
    }
    while (take('\r', '\n')) {
    }
    return fields;
  }

 private:
  bool lineEndHere() const { return *p_ == '\r' && last_ - p_ >= 2 && p_[1] == '\n'; }

  const char* p_;
  const char* last_;
};

[[noreturn]] void fail(const std::string& name, bool recordsMatched, const ExtractaViewData& data) {
  std::string message = name + " parsing failed";
  if (recordsMatched) message += " to parse whole file";
  message += " after successfully parsing the first " + std::to_string(data.sRecords().size()) +
             " S records";
  throw ExtractaParserException(message);
}

}  // namespace

void plainParseViewText(const char* first, const char* last, const std::string& name,
                        ExtractaViewData& data) {
  Cursor in(first, last);
  if (!in.take('A', '!')) fail(name, false, data);
  data.addColumns(in.fieldList());
  if (!in.take('J', '!')) fail(name, false, data);
  ExtractaViewData::Row jRecord = in.fieldList();
  data.setJRecord(jRecord);
  ExtractaViewData::Rows rows;
  while (in.take('S', '!')) rows.push_back(in.fieldList());
  data.setSRecords(rows);
  if (!in.atEnd()) fail(name, true, data);
}

void plainReadViewFile(const std::string& path, ExtractaViewData& data) {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  std::FILE* file = error ? nullptr : std::fopen(path.c_str(), "rb");
  if (!file) throw ExtractaParserException("Could not open file: " + path);
  const std::unique_ptr<char[]> text(new char[size]);
  const std::size_t length = std::fread(text.get(), 1, size, file);
  std::fclose(file);
  plainParseViewText(text.get(), text.get() + length, path, data);
}
