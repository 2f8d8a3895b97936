// Feeds arbitrary bytes to the view file grammar and to the plain hand-written
// reader. Beyond memory and undefined-behaviour errors, which the sanitizers
// report, any difference between the two (success or failure, the message,
// the table left behind) is a failure: the readers are written independently
// from the same format, so a difference is a fault in one of them.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/reader/PlainViewReader.h"
#include "core/ExtractaParserException.h"
#include "reader/ExtractaViewGrammar.h"

namespace {

using Parse = void (*)(const char*, const char*, const std::string&, ExtractaViewData&);

std::string outcome(Parse parse, const char* first, const char* last, ExtractaViewData& data) {
  try {
    parse(first, last, "input", data);
    return "ok";
  } catch (const ExtractaParserException& e) {
    return e.what();
  }
}

bool sameTable(const ExtractaViewData& a, const ExtractaViewData& b) {
  return a.columns() == b.columns() && a.jRecord() == b.jRecord() && a.sRecords() == b.sRecords();
}

[[noreturn]] void mismatch(const char* what, const std::string& grammar, const std::string& plain) {
  std::fprintf(stderr, "grammar and plain reader disagree on %s:\n  grammar: %s\n  plain:   %s\n",
               what, grammar.c_str(), plain.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const char* first = reinterpret_cast<const char*>(bytes);
  const char* last = first + size;

  ExtractaViewData grammar;
  ExtractaViewData plain;
  const std::string grammarOutcome = outcome(parseViewText, first, last, grammar);
  const std::string plainOutcome = outcome(plainParseViewText, first, last, plain);
  if (grammarOutcome != plainOutcome) mismatch("the outcome", grammarOutcome, plainOutcome);
  if (!sameTable(grammar, plain)) mismatch("the table", grammarOutcome, plainOutcome);

  // Rows come only after a header, and a table that holds rows refuses the
  // next header, so reading the same input again must fail at once and leave
  // the table as it was.
  if (!grammar.sRecords().empty()) {
    const std::string again = outcome(parseViewText, first, last, grammar);
    const std::string refused =
        "View Data: Cannot add header information after data has been bound.";
    if (again != refused) mismatch("a second read", again, refused);
    if (!sameTable(grammar, plain)) mismatch("the table after a second read", again, refused);
  }
  return 0;
}
