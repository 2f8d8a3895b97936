#include "tools/extracta_sim/ViewExtraction.h"

#include <time.h>

#include <algorithm>
#include <cstring>

namespace extracta_sim {

namespace {

std::uint64_t ThreadCpuNs() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000000u +
         static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint32_t ColumnOf(const DesignTable& table, std::string_view name, const std::string& usage) {
  const auto found = std::find(table.fields.begin(), table.fields.end(), name);
  if (found == table.fields.end()) {
    throw ExtractionError("unknown field " + std::string(name) + " " + usage + " of view " +
                          table.keyword);
  }
  return static_cast<std::uint32_t>(found - table.fields.begin());
}

void AppendRecord(std::string& out, const char* tag, const std::vector<std::string>& fields,
                  const std::string& lineEnd) {
  out += tag;
  for (const std::string& field : fields) {
    out += field;
    out += '!';
  }
  out += lineEnd;
}

std::string Offset(std::size_t offset) { return " at byte offset " + std::to_string(offset); }

}  // namespace

void RecordCost::settle() {
  if (owed_ == 0) return;
  const std::uint64_t until = ThreadCpuNs() + owed_;
  owed_ = 0;
  while (ThreadCpuNs() < until) {
  }
}

CompiledView::CompiledView(const ViewRequest& request, const DesignTable& table,
                           const OutputStyle& style)
    : table_(&table) {
  for (const Alternative& alternative : request.alternatives) {
    std::vector<Test>& tests = alternatives_.emplace_back();
    for (const Condition& condition : alternative) {
      tests.push_back(
          {ColumnOf(table, condition.field,
                    "in a filter (control file line " + std::to_string(condition.line) + ")"),
           condition.equal, condition.value});
    }
  }
  std::vector<std::string> asked = request.fields;
  if (asked.empty()) asked.assign(table.fields.begin(), table.fields.end());
  for (const std::string& name : asked) {
    const std::uint32_t column = ColumnOf(table, name, "in the field list");
    if (std::find(style.droppedFields.begin(), style.droppedFields.end(), name) !=
        style.droppedFields.end()) {
      continue;
    }
    if (!runs_.empty() && runs_.back().second + 1 == column) {
      runs_.back().second = column;
    } else {
      runs_.emplace_back(column, column);
    }
    names_.push_back(name);
  }
}

bool CompiledView::passes(const char* const* starts) const {
  if (alternatives_.empty()) return true;
  for (const std::vector<Test>& tests : alternatives_) {
    bool holds = true;
    for (const Test& test : tests) {
      const char* begin = starts[test.column];
      const std::size_t length = static_cast<std::size_t>(starts[test.column + 1] - begin) - 1;
      const bool same =
          length == test.value.size() && std::memcmp(begin, test.value.data(), length) == 0;
      if (same != test.equal) {
        holds = false;
        break;
      }
    }
    if (holds) return true;
  }
  return false;
}

ExtractionCounts ExtractView(const CompiledView& view, const std::vector<std::string>& job,
                             const OutputStyle& style, ByteSink& sink, RecordCost& cost) {
  constexpr std::size_t kFlushAt = 1 << 20;
  std::string out;
  out.reserve(kFlushAt + 4096);
  AppendRecord(out, "A!", view.columnNames(), style.lineEnd);
  AppendRecord(out, "J!", job, style.lineEnd);

  const DesignTable& table = view.table();
  const std::size_t fieldCount = table.fields.size();
  const auto& runs = view.runs();
  std::vector<const char*> starts(fieldCount + 1);
  ExtractionCounts counts;

  const char* const base = table.records.data();
  const char* const end = base + table.records.size();
  const char* line = base;
  while (line < end) {
    const char* newline = static_cast<const char*>(std::memchr(line, '\n', end - line));
    const char* const next = newline ? newline + 1 : end;
    const char* contentEnd = newline ? newline : end;
    if (contentEnd > line && contentEnd[-1] == '\r') --contentEnd;
    if (contentEnd == line) {
      line = next;
      continue;
    }
    const auto where = [&] { return table.recordsOffset + static_cast<std::size_t>(line - base); };
    if (contentEnd - line < 2 || line[0] != 'S' || line[1] != '!') {
      throw ExtractionError("malformed design file" + Offset(where()) + " in table " +
                            table.keyword + ": expected a record line (S!)");
    }
    // Field i runs from starts[i] up to the "!" just before starts[i + 1].
    std::size_t count = 0;
    starts[0] = line + 2;
    for (const char* p = line + 2; p < contentEnd; ++p) {
      if (*p != '!') continue;
      if (++count > fieldCount) break;
      starts[count] = p + 1;
    }
    if (count != fieldCount || starts[count] != contentEnd) {
      throw ExtractionError("malformed design file" + Offset(where()) + " in table " +
                            table.keyword + ": a record must have " + std::to_string(fieldCount) +
                            " fields, each followed by '!'");
    }
    ++counts.read;
    if (cost.active()) cost.charge();
    if (view.passes(starts.data())) {
      ++counts.written;
      out += "S!";
      for (const auto& [first, last] : runs) out.append(starts[first], starts[last + 1]);
      out += style.lineEnd;
      if (out.size() >= kFlushAt) {
        sink.write(out);
        out.clear();
      }
    }
    line = next;
  }
  cost.settle();
  sink.write(out);
  return counts;
}

}  // namespace extracta_sim
