#pragma once
// Helpers for the tools' tests: the views the program asks for, written as
// control blocks the way the program writes them; a plain reader for design
// snapshots; and running extracta-sim and make-design.
//
// These are written from the file formats, not from the tools' own code, so
// a fault in a tool's reader or writer shows up as a disagreement here.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace veltest {

// One filter condition, with the text the program writes for it.
struct Cond {
  std::string field;
  bool equal = true;
  std::string value;
  std::string text;
};
Cond Quoted(const std::string& field, const std::string& op, const std::string& value);
Cond Bare(const std::string& field, const std::string& op, const std::string& value);

struct ViewDefinition {
  std::string name;  // file name stem, e.g. "conn"
  std::string keyword;
  std::vector<Cond> conditions;    // all must hold
  std::vector<Cond> alternatives;  // one must hold (with all conditions)
  std::vector<std::string> fields;
};

// The default and the cell view sets, as the program defines them. The views
// tests hold the program's control files to these, block for block.
std::vector<ViewDefinition> StandardViews();
std::vector<ViewDefinition> CellViews();

// The control block for a view, exactly as the program writes it, with LF
// line ends (CrLf() turns them into CR LF).
std::string ControlBlock(const ViewDefinition& view);
std::string CrLf(const std::string& text);

// Whether a record (field name -> text) passes the view's filter.
bool Passes(const ViewDefinition& view, const std::map<std::string, std::string>& record);

struct DesignTableData {
  std::vector<std::string> header;
  std::vector<std::map<std::string, std::string>> records;
};
struct DesignData {
  std::vector<std::string> job;
  std::map<std::string, DesignTableData> tables;
};
// Reads a design snapshot strictly: CR LF lines, each field followed by "!",
// a J! line, then T!, A! and S! lines. Throws std::runtime_error otherwise.
DesignData ParseDesign(const std::string& bytes);

// Runs extracta-sim -k -c -m with quoted paths.
RunResult RunSim(const std::string& design, const std::string& control,
                 const std::vector<std::string>& outputs,
                 const std::map<std::string, std::optional<std::string>>& env = {});

// Runs make-design; fails the test when it does not exit 0.
void MakeDesign(const std::string& path, std::uint64_t seed, std::uint64_t connRecords,
                std::vector<std::string> args = {});

}  // namespace veltest
