#pragma once
// Runs one view request over one design table: keeps the records that pass
// the request's filter, in table order, and writes the asked fields as a view
// file ("A!" header, "J!" job record, "S!" records).

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/extracta_sim/ControlFile.h"
#include "tools/extracta_sim/DesignFile.h"

namespace extracta_sim {

class ExtractionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Where the bytes of one view file go.
class ByteSink {
 public:
  virtual ~ByteSink() = default;
  virtual void write(std::string_view bytes) = 0;
};

// How the view file is written; the defaults are the real tool's.
struct OutputStyle {
  std::string lineEnd = "\r\n";
  std::vector<std::string> droppedFields;  // left out of the header and the records
};

// Stands in for the real tool's extraction cost: spends a fixed amount of
// CPU time for each record read, in batches so the clock is read rarely.
class RecordCost {
 public:
  explicit RecordCost(std::uint64_t nsPerRecord) : nsPerRecord_(nsPerRecord) {}
  ~RecordCost() { settle(); }
  void charge() {
    owed_ += nsPerRecord_;
    if (owed_ >= kBatchNs) settle();
  }
  void settle();
  bool active() const { return nsPerRecord_ != 0; }

 private:
  static constexpr std::uint64_t kBatchNs = 1000000;
  std::uint64_t nsPerRecord_;
  std::uint64_t owed_ = 0;
};

// A request resolved against the table it reads: every field name, in the
// filter and in the field list, is a column index. Throws ExtractionError
// naming a field the table does not know.
class CompiledView {
 public:
  CompiledView(const ViewRequest& request, const DesignTable& table, const OutputStyle& style);

  const DesignTable& table() const { return *table_; }
  // The output columns as runs of adjacent table columns [first, last]: a
  // run is copied from the record in one piece, "!" separators included.
  const std::vector<std::pair<std::uint32_t, std::uint32_t>>& runs() const { return runs_; }
  const std::vector<std::string>& columnNames() const { return names_; }

  // `starts` holds, for each field of a record, where it begins, and one
  // more entry just past the last field's "!".
  bool passes(const char* const* starts) const;

 private:
  struct Test {
    std::uint32_t column;
    bool equal;
    std::string value;
  };
  const DesignTable* table_;
  std::vector<std::vector<Test>> alternatives_;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> runs_;
  std::vector<std::string> names_;
};

struct ExtractionCounts {
  std::uint64_t read = 0;
  std::uint64_t written = 0;
};

// `job` is the job record as the output carries it. Throws ExtractionError
// on a malformed record line.
ExtractionCounts ExtractView(const CompiledView& view, const std::vector<std::string>& job,
                             const OutputStyle& style, ByteSink& sink, RecordCost& cost);

}  // namespace extracta_sim
