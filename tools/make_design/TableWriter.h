#pragma once
// Writes the lines of one snapshot table: its "T!" line (keyword and the byte
// count of its records, so readers can step over the table), its "A!" line,
// then one "S!" line per record. A record is filled field by field in any order and
// written in the table's column order; fields left unset are empty.

#include <array>
#include <bitset>
#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tools/common/FileWriter.h"
#include "tools/make_design/DesignSchema.h"

namespace make_design {

class TableWriter {
 public:
  TableWriter(const TableLayout& layout, veltools::FileWriter& out);

  // Field texts must stay valid until next() (literals, long-lived strings,
  // or numbers formatted here).
  TableWriter& set(Field field, std::string_view text) {
    slot(field) = text;
    return *this;
  }
  bool has(Field field) const { return known_[static_cast<std::size_t>(field)]; }
  TableWriter& integer(Field field, std::int64_t value);
  // `scaled` / 10^decimals, written with exactly `decimals` digits after the point.
  TableWriter& fixed(Field field, std::int64_t scaled, int decimals);
  // Up to four numbers separated by single blanks ("1044 1 0").
  TableWriter& numbers(Field field, std::initializer_list<std::int64_t> values);

  // Writes the record and starts an empty one.
  void next();

  // Fills in the table line's byte count of the records; call once, after
  // the last record.
  void finish();

  std::string_view keyword() const { return layout_.keyword; }
  std::uint64_t records() const { return records_; }

  // Appends `scaled` / 10^decimals to `out`, as fixed() writes it.
  static void AppendFixed(std::string& out, std::int64_t scaled, int decimals);

 private:
  std::string_view& slot(Field field) {
    const std::size_t index = static_cast<std::size_t>(field);
    if (!known_[index]) {
      throw std::logic_error("table " + std::string(layout_.keyword) + " has no field " +
                             std::string(FieldName(field)));
    }
    return slots_[index];
  }
  char* reserve(std::size_t size);

  const TableLayout& layout_;
  veltools::FileWriter& out_;
  std::bitset<kFieldCount> known_;
  std::array<std::string_view, kFieldCount> slots_{};
  std::array<char, 4096> arena_{};
  std::size_t used_ = 0;
  std::uint64_t records_ = 0;
  std::uint64_t lengthOffset_ = 0;   // where the table line's byte count goes
  std::uint64_t recordsOffset_ = 0;  // where the records begin
};

}  // namespace make_design
