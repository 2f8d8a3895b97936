#include "tools/extracta_sim/DesignFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "tools/common/Platform.h"

namespace extracta_sim {

namespace {

std::string SystemReason() { return std::strerror(errno); }

// One line starting at `pos`: its content without the line end, and where
// the next line starts.
struct LineSpan {
  std::string_view content;
  std::size_t next = 0;
};

LineSpan LineAt(std::string_view bytes, std::size_t pos) {
  const std::size_t newline = bytes.find('\n', pos);
  const std::size_t end = newline == std::string_view::npos ? bytes.size() : newline;
  std::string_view content = bytes.substr(pos, end - pos);
  if (!content.empty() && content.back() == '\r') content.remove_suffix(1);
  return {content, newline == std::string_view::npos ? bytes.size() : newline + 1};
}

std::string At(std::size_t offset) { return " at byte offset " + std::to_string(offset); }

}  // namespace

MappedFile::MappedFile(const std::string& path, const std::string& what) {
  std::error_code ignored;
  if (std::filesystem::is_directory(std::filesystem::u8path(path), ignored))
    throw DesignError("cannot read " + what + " " + path + ": it is a directory");
  if (veltools::MapFile(path, data_, size_)) {
    mapped_ = true;
    return;
  }
  // Not mappable (empty, a pipe, a device): read it whole.
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) throw DesignError("cannot open " + what + " " + path + ": " + SystemReason());
  char buffer[1 << 16];
  std::size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) copy_.append(buffer, got);
  const bool failed = std::ferror(file) != 0;
  const std::string reason = SystemReason();
  std::fclose(file);
  if (failed) throw DesignError("cannot read " + what + " " + path + ": " + reason);
  data_ = copy_.data();
  size_ = copy_.size();
}

MappedFile::~MappedFile() {
  if (mapped_) veltools::UnmapFile(data_, size_);
}

std::vector<std::string_view> SplitRecordFields(std::string_view content, std::size_t offset) {
  std::vector<std::string_view> fields;
  std::size_t start = 0;
  while (start < content.size()) {
    const std::size_t bang = content.find('!', start);
    if (bang == std::string_view::npos) {
      throw DesignError("malformed design file" + At(offset) +
                        ": the last field of a record is not followed by '!'");
    }
    fields.push_back(content.substr(start, bang - start));
    start = bang + 1;
  }
  return fields;
}

Design::Design(std::string_view bytes) : bytes_(bytes) {
  const LineSpan first = LineAt(bytes_, 0);
  if (first.content.substr(0, 2) != "J!") {
    throw DesignError("malformed design file: it does not begin with a job record (J!)");
  }
  job_ = SplitRecordFields(first.content.substr(2), 2);
  if (job_.size() != 12) {
    throw DesignError("malformed design file: the job record has " + std::to_string(job_.size()) +
                      " fields, 12 expected");
  }
  cursor_ = first.next;
}

const DesignTable* Design::findTable(std::string_view keyword) {
  for (const DesignTable& table : tables_) {
    if (table.keyword == keyword) return &table;
  }
  while (readNextTable()) {
    if (tables_.back().keyword == keyword) return &tables_.back();
  }
  return nullptr;
}

bool Design::readNextTable() {
  LineSpan line = LineAt(bytes_, cursor_);
  while (cursor_ < bytes_.size() && line.content.empty()) {
    cursor_ = line.next;
    line = LineAt(bytes_, cursor_);
  }
  if (cursor_ >= bytes_.size()) return false;
  if (line.content.substr(0, 2) != "T!") {
    throw DesignError("malformed design file" + At(cursor_) + ": expected a table line (T!)");
  }
  const std::vector<std::string_view> title = SplitRecordFields(line.content.substr(2), cursor_);
  if (title.empty() || title.front().empty()) {
    throw DesignError("malformed design file" + At(cursor_) + ": table line without a keyword");
  }
  DesignTable table;
  table.keyword = std::string(title.front());

  const std::size_t headerOffset = line.next;
  const LineSpan header = LineAt(bytes_, headerOffset);
  if (header.content.substr(0, 2) != "A!") {
    throw DesignError("malformed design file" + At(headerOffset) + ": table " + table.keyword +
                      " has no header line (A!)");
  }
  table.fields = SplitRecordFields(header.content.substr(2), headerOffset);

  // The records run to the next table line. The table line may say how
  // many bytes they take; otherwise a search finds the next table line
  // without looking at the records line by line.
  const std::size_t begin = header.next;
  std::size_t end = bytes_.size();
  if (title.size() > 1) {
    const std::string_view digits = title[1];
    std::size_t length = 0;
    bool valid = !digits.empty() && digits.size() <= 18;
    for (const char c : digits) {
      valid = valid && c >= '0' && c <= '9';
      length = length * 10 + static_cast<std::size_t>(c - '0');
    }
    if (!valid || length > bytes_.size() - begin ||
        (begin + length < bytes_.size() && bytes_.substr(begin + length, 2) != "T!")) {
      throw DesignError("malformed design file" + At(cursor_) + ": table " + table.keyword +
                        " does not hold the " + std::string(digits) +
                        " bytes its table line gives");
    }
    end = begin + length;
  } else if (bytes_.substr(begin, 2) == "T!") {
    end = begin;
  } else if (begin < bytes_.size()) {
    const std::size_t found = bytes_.find("\nT!", begin);
    if (found != std::string_view::npos) end = found + 1;
  }
  table.records = bytes_.substr(begin, end - begin);
  table.recordsOffset = begin;
  tables_.push_back(std::move(table));
  cursor_ = end;
  return true;
}

}  // namespace extracta_sim
