#include "tests/tools/ToolsTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace veltest {

namespace {

// A view definition; field names hold no blanks, so the fields are written
// as one text.
ViewDefinition View(const char* name, const char* keyword, std::vector<Cond> conditions,
                    std::vector<Cond> alternatives, const std::string& fields) {
  ViewDefinition view{name, keyword, std::move(conditions), std::move(alternatives), {}};
  std::istringstream in(fields);
  for (std::string field; in >> field;) view.fields.push_back(field);
  return view;
}

std::vector<Cond> GeometryConditions() {
  std::vector<Cond> list = {Quoted("NET_NAME", "!=", "")};
  for (const char* shape : {"FIG_RECTANGLE", "CIRCLE", "OBLONG_Y", "OBLONG_X", "SQUARE"})
    list.push_back(Quoted("PAD_SHAPE_NAME", "!=", shape));
  for (const char* cls :
       {"ANALYSIS", "BOARD GEOMETRY", "COMPONENT VALUE", "DEVICE TYPE", "DRAWING FORMAT",
        "DRC ERROR CLASS", "ETCH", "MANUFACTURING", "PACKAGE GEOMETRY", "PACKAGE KEEPIN",
        "PACKAGE KEEPOUT", "REF DES", "ROUTE KEEPIN", "ROUTE KEEPOUT", "TOLERANCE",
        "USER PART NUMBER", "VIA KEEPOUT"})
    list.push_back(Quoted("CLASS", "!=", cls));
  for (const char* rat : {"YES", "NO"}) list.push_back(Quoted("RAT_CONNECTED", "!=", rat));
  return list;
}

std::vector<Cond> ConnectivityConditions() {
  return {Quoted("RAT_CONNECTED", "!=", "YES"), Quoted("RAT_CONNECTED", "!=", "NO"),
          Quoted("NET_NAME", "!=", "")};
}

const char kGraphicData[] =
    " GRAPHIC_DATA_1 GRAPHIC_DATA_2 GRAPHIC_DATA_3 GRAPHIC_DATA_4 GRAPHIC_DATA_5 GRAPHIC_DATA_6"
    " GRAPHIC_DATA_7 GRAPHIC_DATA_8 GRAPHIC_DATA_9 GRAPHIC_DATA_10 ";

// Full geometry's first 16 columns; the cell-mode view stops there.
const std::string kGeometryHead =
    std::string("NET_NAME_SORT RECORD_TAG CLASS SUBCLASS NET_NAME GRAPHIC_DATA_NUMBER") +
    kGraphicData;

const std::string kCommonConnectivityFields =
    std::string(
        "NET_NAME_SORT NODE_SORT NODE_1_NUMBER NODE_2_NUMBER RECORD_TAG CLASS SUBCLASS "
        "NET_NAME GRAPHIC_DATA_NUMBER") +
    kGraphicData +
    "REFDES COMP_CLASS PIN_NUMBER PIN_TYPE PIN_X PIN_Y PIN_ROTATION_ABSOLUTE PAD_STACK_NAME "
    "START_LAYER_NAME END_LAYER_NAME WIREBOND_PROFILE_NAME WIREBOND_MATERIAL ";

ViewDefinition Layer() {
  return View("layer", "LAYER", {}, {},
              "LAYER_SORT LAYER_SUBCLASS LAYER_TYPE LAYER_ARTWORK LAYER_CONDUCTOR "
              "LAYER_DIELECTRIC_CONSTANT LAYER_LOSS_TANGENT LAYER_ELECTRICAL_CONDUCTIVITY "
              "LAYER_MATERIAL LAYER_SHIELD_LAYER LAYER_THERMAL_CONDUCTIVITY LAYER_THICKNESS");
}

ViewDefinition DieStack() { return View("diestack", "DIE_STACK_DEF", {}, {}, ""); }

}  // namespace

Cond Quoted(const std::string& field, const std::string& op, const std::string& value) {
  return {field, op == "=", value, field + " " + op + " '" + value + "'"};
}

Cond Bare(const std::string& field, const std::string& op, const std::string& value) {
  return {field, op == "=", value, field + " " + op + " " + value};
}

std::vector<ViewDefinition> StandardViews() {
  return {
      Layer(),
      View("paddef", "PAD_DEF", {}, {}, ""),
      View("fullgeo", "FULL_GEOMETRY", GeometryConditions(), {},
           kGeometryHead +
               "GRAPHIC_DATA_NAME REFDES PIN_NUMBER PIN_TYPE PIN_X PIN_Y PIN_ROTATION "
               "PIN_ROTATION_ABSOLUTE VIA_X VIA_Y SYM_MIRROR SYM_ROTATE VIA_MIRROR VIA_ROTATION "
               "BOND_PAD PAD_STACK_NAME PAD_SHAPE_NAME START_LAYER_NAME END_LAYER_NAME"),
      View("conn", "CONNECTIVITY", ConnectivityConditions(),
           {Bare("CLASS", "=", "CONDUCTOR"), Bare("CLASS", "=", "ETCH"), Bare("CLASS", "=", "PIN"),
            Bare("CLASS", "=", "VIA CLASS")},
           kCommonConnectivityFields +
               "GRAPHIC_DATA_NAME VIA_X VIA_Y SYM_MIRROR SYM_ROTATE VIA_MIRROR VIA_ROTATION "
               "BOND_PAD"),
      DieStack(),
      View("net", "NET", {}, {}, "NET_NAME NET_BUS_NAME NET_DIFFERENTIAL_PAIR"),
      View("component", "COMPONENT", {}, {},
           "REFDES_SORT REFDES COMP_CLASS COMP_DEVICE_TYPE COMP_VALUE COMP_TOL COMP_PACKAGE "
           "COMP_PART_NUMBER SYM_X SYM_Y SYM_ROTATE SYM_MIRROR SYM_BOX_X1 SYM_BOX_Y1 SYM_BOX_X2 "
           "SYM_BOX_Y2"),
      View("outline", "GEOMETRY", {Quoted("SUBCLASS", "=", "OUTLINE")},
           {Quoted("CLASS", "=", "BOARD GEOMETRY"), Quoted("CLASS", "=", "SUBSTRATE GEOMETRY")},
           std::string("CLASS SUBCLASS RECORD_TAG GRAPHIC_DATA_NAME GRAPHIC_DATA_NUMBER") +
               kGraphicData),
      View("compositepad", "COMPOSITE_PAD", {},
           {Quoted("DRILL_ARRAY_ROWS", "!=", ""), Quoted("BACKDRILL_TOP_LAYER", "!=", ""),
            Quoted("BACKDRILL_BOTTOM_LAYER", "!=", "")},
           "PAD_STACK_NAME GRAPHIC_DATA_NAME START_LAYER_NAME END_LAYER_NAME NET_NAME "
           "DRILL_HOLE_NAME DRILL_ARRAY_LOCATIONS BACKDRILL_TOP_LAYER BACKDRILL_BOTTOM_LAYER "
           "BACKDRILL_SIZE PIN_X PIN_Y PIN_ROTATION_ABSOLUTE VIA_X VIA_Y VIA_ROTATION"),
      View("logicalpin", "LOGICAL_PIN", {}, {},
           "REFDES_SORT REFDES FUNC_DES PIN_NUMBER PIN_PINUSE"),
  };
}

std::vector<ViewDefinition> CellViews() {
  return {Layer(), View("cfullgeo", "FULL_GEOMETRY", GeometryConditions(), {}, kGeometryHead),
          View("cconn", "CONNECTIVITY", ConnectivityConditions(),
               {Quoted("CLASS", "=", "PIN"), Quoted("CLASS", "=", "VIA CLASS"),
                Quoted("WIREBOND_MATERIAL", "!=", "")},
               kCommonConnectivityFields +
                   "SYM_NAME DRILL_HOLE_X DRILL_HOLE_Y DRILL_FIGURE_SHAPE DRILL_FIGURE_WIDTH "
                   "DRILL_FIGURE_HEIGHT DRILL_FIGURE_ROTATION"),
          DieStack()};
}

std::string ControlBlock(const ViewDefinition& view) {
  const auto join = [](const std::vector<std::string>& items) {
    std::string text;
    for (std::size_t i = 0; i < items.size(); ++i) text += (i ? "\n\t" : "") + items[i];
    return text;
  };
  std::vector<std::string> conditionTexts;
  for (const Cond& c : view.conditions) conditionTexts.push_back(c.text);
  const std::string common = join(conditionTexts);
  std::string block = view.keyword + "\n\n\t";
  if (!view.alternatives.empty()) {
    for (std::size_t i = 0; i < view.alternatives.size(); ++i) {
      if (i) block += "\n\tOR\n\t";
      block += view.alternatives[i].text + "\n\t" + common;
    }
    block += "\n\n\t";
  } else if (!common.empty()) {
    block += common + "\n\n\t";
  }
  if (!view.fields.empty()) block += join(view.fields) + "\n";
  return block + "\nEND\n\n";
}

std::string CrLf(const std::string& text) {
  std::string out;
  for (const char c : text) out += c == '\n' ? std::string("\r\n") : std::string(1, c);
  return out;
}

bool Passes(const ViewDefinition& view, const std::map<std::string, std::string>& record) {
  const auto holds = [&](const Cond& c) { return (record.at(c.field) == c.value) == c.equal; };
  const auto& any = view.alternatives;
  return std::all_of(view.conditions.begin(), view.conditions.end(), holds) &&
         (any.empty() || std::any_of(any.begin(), any.end(), holds));
}

DesignData ParseDesign(const std::string& bytes) {
  DesignData design;
  DesignTableData* table = nullptr;
  for (std::size_t start = 0, n = 1; start < bytes.size(); ++n) {
    const auto end = bytes.find("\r\n", start);
    const std::string line = bytes.substr(start, end - start), tag = line.substr(0, 2);
    const auto fail = [n] { throw std::runtime_error("bad design line " + std::to_string(n)); };
    if (end == std::string::npos || line.size() < 2 || line.back() != '!') fail();
    start = end + 2;
    std::vector<std::string> fields;
    for (auto at = line.find('!') + 1; at < line.size(); at = line.find('!', at) + 1)
      fields.push_back(line.substr(at, line.find('!', at) - at));
    if (n == 1 && tag == "J!") {
      design.job = fields;
    } else if (n > 1 && tag == "T!" && design.tables[fields.at(0)].header.empty()) {
      table = &design.tables[fields[0]];
    } else if (tag == "A!" && table && table->header.empty()) {
      table->header = fields;
    } else if (tag == "S!" && table && fields.size() == table->header.size()) {
      std::map<std::string, std::string>& record = table->records.emplace_back();
      for (std::size_t f = 0; f < fields.size(); ++f) record[table->header[f]] = fields[f];
    } else {
      fail();
    }
  }
  return design;
}

RunResult RunSim(const std::string& design, const std::string& control,
                 const std::vector<std::string>& outputs,
                 const std::map<std::string, std::optional<std::string>>& env) {
  std::vector<std::string> argv = {BinPath("extracta-sim"), "-k", "-c", "-m", "\"" + design + "\"",
                                   "\"" + control + "\""};
  for (const std::string& output : outputs) argv.push_back("\"" + output + "\"");
  RunOptions options;
  options.env = env;
  // Nothing the developer's shell sets may change a run.
  for (const char* name :
       {"EXTRACTA_SIM_MATCH", "EXTRACTA_SIM_FAIL", "EXTRACTA_SIM_SIGNAL",
        "EXTRACTA_SIM_PRINT_BYTES", "EXTRACTA_SIM_SLEEP_MS", "EXTRACTA_SIM_NS_PER_RECORD",
        "EXTRACTA_SIM_GRANDCHILD_SECONDS", "EXTRACTA_SIM_OUTPUT", "EXTRACTA_SIM_LOG"}) {
    options.env.emplace(name, std::nullopt);
  }
  options.env.emplace("EXTRACTA_SIM_DATE", "Sat Nov 21 10:02:11 2026");
  return RunProgram(argv, options);
}

void MakeDesign(const std::string& path, std::uint64_t seed, std::uint64_t connRecords,
                std::vector<std::string> args) {
  args.insert(args.begin(), {BinPath("make-design"), "--seed", std::to_string(seed),
                             "--conn-records", std::to_string(connRecords), "-o", path, "--quiet"});
  const RunResult result = RunProgram(args);
  ASSERT_EQ(result.exitCode, 0) << result.err;
}

}  // namespace veltest
