#pragma once
// The field list of every view file record, in one place for the whole-file
// reader and the record-by-record one, so that both split a record exactly
// alike: a field stops at "!" and at a CR LF pair (a lone CR or LF is text), a
// field may be empty, so every "!" after the first field yields one more, and
// blank lines after a record are skipped. raw[] hands over a field's bytes as
// one range, so its string is built at once rather than appended byte by byte.
//
// Include only where Boost.Spirit is compiled anyway (the reader's sources).

#include <boost/spirit/include/qi.hpp>

#include "reader/ExtractaViewData.h"

template <typename Iterator>
void DefineFieldList(boost::spirit::qi::rule<Iterator, ExtractaViewData::Row()>& fieldList) {
  namespace qi = boost::spirit::qi;
  fieldList =
      (qi::raw[*((qi::char_ - qi::lit("\r\n")) - qi::lit('!'))] % qi::lit('!')) >> *qi::lit("\r\n");
}
