#include "reader/ExtractaViewGrammar.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include <boost/phoenix/bind/bind_member_function.hpp>
#include <boost/phoenix/core.hpp>
#include <boost/spirit/include/qi.hpp>

#include "core/ExtractaParserException.h"
#include "reader/FieldList.h"
#include "reader/OpenViewFile.h"

namespace qi = boost::spirit::qi;

namespace {

// The S records as the grammar collects them before handing them to the table
// in one exchange. Spirit parses each element of a repetition into a fresh
// local and then appends a copy of it, which would copy every row once more:
// one more allocation per row and per long field, on millions of records. The
// local is dropped right after the append, so for this type (and only this
// one, which no other file sees) the append takes the row's content instead.
struct RowCollector : ExtractaViewData::Rows {};

}  // namespace

namespace boost::spirit::traits {

template <>
struct push_back_container<RowCollector, ExtractaViewData::Row> {
  static bool call(RowCollector& rows, const ExtractaViewData::Row& row) {
    rows.push_back(std::move(const_cast<ExtractaViewData::Row&>(row)));
    return true;
  }
};

}  // namespace boost::spirit::traits

// The grammar of a view file, over narrow characters and without a skipper:
// every byte counts, blanks included.
template <typename Iterator>
class ExtractaViewGrammar : public qi::grammar<Iterator> {
 public:
  explicit ExtractaViewGrammar(ExtractaViewData& data)
      : ExtractaViewGrammar::base_type(start), data_(&data) {
    using qi::lit;
    namespace phx = boost::phoenix;

    DefineFieldList(fieldList);

    start = lit("A!") >> fieldList[phx::bind(&ExtractaViewGrammar::onHeader, this, qi::_1)] >>
            lit("J!") >> fieldList[phx::bind(&ExtractaViewData::setJRecord, data_, qi::_1)] >>
            qi::as<RowCollector>()[*(lit("S!") >> fieldList)]
                                  [phx::bind(&ExtractaViewData::setSRecords, data_, qi::_1)];
  }

 private:
  void onHeader(const ExtractaViewData::Row& names) { data_->addColumns(names); }

  qi::rule<Iterator> start;
  qi::rule<Iterator, ExtractaViewData::Row()> fieldList;
  ExtractaViewData* data_;
};

void parseViewText(const char* first, const char* last, const std::string& name,
                   ExtractaViewData& data) {
  const ExtractaViewGrammar<const char*> grammar(data);
  const char* position = first;
  const bool ok = qi::parse(position, last, grammar);
  if (ok && position == last) return;

  std::string message = name + " parsing failed";
  if (ok) message += " to parse whole file";
  message += " after successfully parsing the first " + std::to_string(data.sRecords().size()) +
             " S records";
  throw ExtractaParserException(message);
}

namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

std::FILE* OpenViewFile(const std::string& path, std::uintmax_t& size) {
  // The size comes from the file system rather than from a stream position,
  // which is 32 bits wide on some runtimes; asking for it also turns away
  // directories and devices, which open but have no size to read.
  std::error_code error;
  size = std::filesystem::file_size(std::filesystem::u8path(path), error);
  std::FILE* file = error ? nullptr : std::fopen(path.c_str(), "rb");
  // The system's reason follows the path, so that the stored message says why.
  if (!file && !error) error = std::error_code(errno, std::generic_category());
  if (!file)
    throw ExtractaParserException("Could not open file: " + path + " (" + error.message() + ")");
  return file;
}

void ThrowReadFailure(const std::string& path) {
  const std::error_code error(errno, std::generic_category());
  throw ExtractaParserException("Could not read file: " + path + " (" + error.message() + ")");
}

void readViewFile(const std::string& path, ExtractaViewData& data) {
  std::uintmax_t size = 0;
  std::unique_ptr<std::FILE, FileCloser> file(OpenViewFile(path, size));

  // Not a std::string: its resize would write every byte once before the read
  // writes it again, a wasted pass over a file of gigabytes.
  const std::unique_ptr<char[]> text(new char[size]);
  const std::size_t length = std::fread(text.get(), 1, size, file.get());
  if (std::ferror(file.get())) ThrowReadFailure(path);
  file.reset();

  parseViewText(text.get(), text.get() + length, path, data);
}
