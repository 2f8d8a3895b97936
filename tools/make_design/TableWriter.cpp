#include "tools/make_design/TableWriter.h"

#include <cstring>
#include <iterator>

namespace make_design {

namespace {

// Writes the digits of `value` ending just before `end`; returns the start.
char* FormatUnsigned(std::uint64_t value, char* end) {
  do {
    *--end = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  return end;
}

}  // namespace

constexpr std::size_t kLengthDigits = 16;

TableWriter::TableWriter(const TableLayout& layout, veltools::FileWriter& out)
    : layout_(layout), out_(out) {
  std::string& buffer = out_.buffer();
  buffer += "T!";
  buffer += layout_.keyword;
  buffer += '!';
  lengthOffset_ = out_.bytesWritten();
  buffer.append(kLengthDigits, '0');
  buffer += "!\r\nA!";
  for (const Field field : layout_.fields) {
    known_.set(static_cast<std::size_t>(field));
    buffer += FieldName(field);
    buffer += '!';
  }
  buffer += "\r\n";
  recordsOffset_ = out_.bytesWritten();
  out_.flushIfFull();
}

void TableWriter::finish() {
  char digits[kLengthDigits];
  std::uint64_t length = out_.bytesWritten() - recordsOffset_;
  for (std::size_t i = kLengthDigits; i > 0; --i) {
    digits[i - 1] = static_cast<char>('0' + length % 10);
    length /= 10;
  }
  out_.patch(lengthOffset_, std::string_view(digits, kLengthDigits));
}

char* TableWriter::reserve(std::size_t size) {
  if (used_ + size > arena_.size()) throw std::logic_error("record text too long");
  char* start = arena_.data() + used_;
  used_ += size;
  return start;
}

TableWriter& TableWriter::integer(Field field, std::int64_t value) {
  return numbers(field, {value});
}

TableWriter& TableWriter::numbers(Field field, std::initializer_list<std::int64_t> values) {
  if (values.size() > 4) throw std::logic_error("at most four numbers in one field");
  char text[96];
  char* const end = text + sizeof text;
  char* begin = end;
  for (auto it = std::rbegin(values); it != std::rend(values); ++it) {
    if (begin != end) *--begin = ' ';
    const std::int64_t value = *it;
    const std::uint64_t magnitude =
        value < 0 ? ~static_cast<std::uint64_t>(value) + 1 : static_cast<std::uint64_t>(value);
    begin = FormatUnsigned(magnitude, begin);
    if (value < 0) *--begin = '-';
  }
  const std::size_t size = static_cast<std::size_t>(end - begin);
  char* stored = reserve(size);
  std::memcpy(stored, begin, size);
  return set(field, std::string_view(stored, size));
}

namespace {

// Formats `scaled` / 10^decimals into the end of `buffer`; returns the start.
char* FormatFixed(std::int64_t scaled, int decimals, char* end) {
  std::uint64_t divisor = 1;
  for (int i = 0; i < decimals; ++i) divisor *= 10;
  const bool negative = scaled < 0;
  const std::uint64_t magnitude =
      negative ? ~static_cast<std::uint64_t>(scaled) + 1 : static_cast<std::uint64_t>(scaled);
  char* begin = end;
  std::uint64_t fraction = magnitude % divisor;
  for (int i = 0; i < decimals; ++i) {
    *--begin = static_cast<char>('0' + fraction % 10);
    fraction /= 10;
  }
  if (decimals > 0) *--begin = '.';
  begin = FormatUnsigned(magnitude / divisor, begin);
  if (negative) *--begin = '-';
  return begin;
}

}  // namespace

void TableWriter::AppendFixed(std::string& out, std::int64_t scaled, int decimals) {
  char text[48];
  char* const end = text + sizeof text;
  out.append(FormatFixed(scaled, decimals, end), end);
}

TableWriter& TableWriter::fixed(Field field, std::int64_t scaled, int decimals) {
  if (decimals < 0 || decimals > 18) throw std::logic_error("unsupported number of decimals");
  char text[48];
  char* const end = text + sizeof text;
  const char* begin = FormatFixed(scaled, decimals, end);
  const std::size_t size = static_cast<std::size_t>(end - begin);
  char* stored = reserve(size);
  std::memcpy(stored, begin, size);
  return set(field, std::string_view(stored, size));
}

void TableWriter::next() {
  std::string& buffer = out_.buffer();
  buffer += "S!";
  for (const Field field : layout_.fields) {
    std::string_view& text = slots_[static_cast<std::size_t>(field)];
    buffer.append(text.data(), text.size());
    buffer += '!';
    text = {};
  }
  buffer += "\r\n";
  used_ = 0;
  ++records_;
  out_.flushIfFull();
}

}  // namespace make_design
