#include "reader/ViewFileScanner.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <boost/phoenix/bind/bind_member_function.hpp>
#include <boost/phoenix/core.hpp>
#include <boost/spirit/include/qi.hpp>

#include "core/ExtractaParserException.h"
#include "reader/FieldList.h"
#include "reader/OpenViewFile.h"

namespace qi = boost::spirit::qi;
namespace phx = boost::phoenix;

// The whole-file grammar's rules, taken apart: the header and J record once,
// then S records for as long as they follow.
struct ViewFileScanner::Grammar {
  explicit Grammar(ViewFileScanner& scanner) {
    using qi::lit;
    DefineFieldList(fieldList);
    header = lit("A!") >> fieldList[phx::bind(&ViewFileScanner::onHeader, &scanner, qi::_1)] >>
             lit("J!") >> fieldList[phx::bind(&ViewFileScanner::onJRecord, &scanner, qi::_1)];
    records = *(lit("S!") >> fieldList[phx::bind(&ViewFileScanner::onRecord, &scanner, qi::_1)]);
  }

  qi::rule<const char*, ExtractaViewData::Row()> fieldList;
  qi::rule<const char*> header;
  qi::rule<const char*> records;
};

namespace {

// A record ends at its first CR LF and the blank lines after it. Where a CR
// LF is followed by a byte that is no CR, no later byte can change how the
// text before it parses: the records before such a place can be parsed now.
bool RecordsEndBefore(const std::vector<char>& text, std::size_t i) {
  return i >= 2 && i < text.size() && text[i - 2] == '\r' && text[i - 1] == '\n' && text[i] != '\r';
}

}  // namespace

ViewFileScanner::ViewFileScanner(std::string name, RecordHandler onRecord)
    : name_(std::move(name)), onRecord_(std::move(onRecord)), grammar_(new Grammar(*this)) {}

ViewFileScanner::~ViewFileScanner() = default;

void ViewFileScanner::feed(const char* data, std::size_t size) {
  if (begin_ > 0) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(begin_));
    searched_ = searched_ > begin_ ? searched_ - begin_ : 0;
    begin_ = 0;
  }
  buffer_.insert(buffer_.end(), data, data + size);

  // The header is parsed once its two records are complete, that is after
  // the second place where records end; S records up to the last such place.
  std::size_t end = 0;
  if (headerRead_) {
    for (std::size_t i = buffer_.size(); i-- > std::max<std::size_t>(searched_, 2);) {
      if (RecordsEndBefore(buffer_, i)) {
        end = i;
        break;
      }
    }
  } else {
    for (std::size_t i = std::max<std::size_t>(searched_, 2); i < buffer_.size(); ++i) {
      if (RecordsEndBefore(buffer_, i) && ++headerEnds_ >= 2) end = i;
    }
  }
  searched_ = buffer_.size();
  if (end > begin_) parse(end);
}

void ViewFileScanner::finish() {
  parse(buffer_.size());
  buffer_.clear();
  begin_ = 0;
}

void ViewFileScanner::parse(std::size_t end) {
  const char* position = buffer_.data() + begin_;
  const char* const stop = buffer_.data() + end;
  if (!headerRead_) {
    if (!qi::parse(position, stop, grammar_->header)) fail(false);
    headerRead_ = true;
  }
  qi::parse(position, stop, grammar_->records);
  if (position != stop) fail(true);
  begin_ = end;
}

void ViewFileScanner::fail(bool headerRead) const {
  std::string message = name_ + " parsing failed";
  if (headerRead) message += " to parse whole file";
  message += " after successfully parsing the first " + std::to_string(records_) + " S records";
  throw ExtractaParserException(message);
}

void ViewFileScanner::onHeader(const ExtractaViewData::Row& names) { header_.addColumns(names); }

void ViewFileScanner::onJRecord(const ExtractaViewData::Row& fields) {
  ExtractaViewData::Row copy = fields;
  header_.setJRecord(copy);
}

void ViewFileScanner::onRecord(const ExtractaViewData::Row& fields) {
  ++records_;
  if (onRecord_) onRecord_(fields);
}

void scanViewFile(const std::string& path, ViewFileScanner& scanner) {
  std::uintmax_t size = 0;
  std::FILE* file = OpenViewFile(path, size);
  std::vector<char> block(1 << 20);
  try {
    for (;;) {
      const std::size_t got = std::fread(block.data(), 1, block.size(), file);
      if (std::ferror(file)) ThrowReadFailure(path);
      if (got == 0) break;
      scanner.feed(block.data(), got);
    }
  } catch (...) {
    std::fclose(file);
    throw;
  }
  std::fclose(file);
  scanner.finish();
}
