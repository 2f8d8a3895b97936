#include "tests/tools/ToolsTestSupport.h"

#include <gtest/gtest.h>

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
  for (const char* shape : {"FIG_RECTANGLE", "CIRCLE", "OBLONG_Y", "OBLONG_X", "SQUARE"}) {
    list.push_back(Quoted("PAD_SHAPE_NAME", "!=", shape));
  }
  for (const char* cls :
       {"ANALYSIS", "BOARD GEOMETRY", "COMPONENT VALUE", "DEVICE TYPE", "DRAWING FORMAT",
        "DRC ERROR CLASS", "ETCH", "MANUFACTURING", "PACKAGE GEOMETRY", "PACKAGE KEEPIN",
        "PACKAGE KEEPOUT", "REF DES", "ROUTE KEEPIN", "ROUTE KEEPOUT", "TOLERANCE",
        "USER PART NUMBER", "VIA KEEPOUT"}) {
    list.push_back(Quoted("CLASS", "!=", cls));
  }
  list.push_back(Quoted("RAT_CONNECTED", "!=", "YES"));
  list.push_back(Quoted("RAT_CONNECTED", "!=", "NO"));
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

std::vector<std::string> SplitFields(const std::string& content) {
  if (content.empty()) return {};
  if (content.back() != '!') throw std::runtime_error("line does not end in '!': " + content);
  std::vector<std::string> fields;
  std::string::size_type start = 0;
  while (start < content.size()) {
    const auto bang = content.find('!', start);
    fields.push_back(content.substr(start, bang - start));
    start = bang + 1;
  }
  return fields;
}

std::vector<std::string> CrLfLines(const std::string& bytes) {
  std::vector<std::string> lines;
  std::string::size_type start = 0;
  while (start < bytes.size()) {
    const auto end = bytes.find("\r\n", start);
    if (end == std::string::npos) throw std::runtime_error("last line has no CR LF");
    lines.push_back(bytes.substr(start, end - start));
    start = end + 2;
  }
  return lines;
}

}  // namespace

Cond Quoted(const std::string& field, const std::string& op, const std::string& value) {
  return {field, op == "=", value, field + " " + op + " '" + value + "'"};
}

Cond Bare(const std::string& field, const std::string& op, const std::string& value) {
  return {field, op == "=", value, field + " " + op + " " + value};
}

Cond NetCond(const std::string& op, const std::string& net) {
  return {"NET_NAME", op == "=", net, "NET_NAME " + op + "'" + net + "'"};
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
  for (const char c : text) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

bool Passes(const ViewDefinition& view, const std::map<std::string, std::string>& record) {
  const auto holds = [&](const Cond& c) { return (record.at(c.field) == c.value) == c.equal; };
  for (const Cond& c : view.conditions) {
    if (!holds(c)) return false;
  }
  if (view.alternatives.empty()) return true;
  for (const Cond& c : view.alternatives) {
    if (holds(c)) return true;
  }
  return false;
}

ViewFile ParseViewFile(const std::string& bytes) {
  const std::vector<std::string> lines = CrLfLines(bytes);
  if (lines.size() < 2 || lines[0].compare(0, 2, "A!") != 0 || lines[1].compare(0, 2, "J!") != 0) {
    throw std::runtime_error("view file does not start with A! and J! lines");
  }
  ViewFile view;
  view.header = SplitFields(lines[0].substr(2));
  view.job = SplitFields(lines[1].substr(2));
  for (std::size_t i = 2; i < lines.size(); ++i) {
    if (lines[i].compare(0, 2, "S!") != 0) throw std::runtime_error("not an S! line: " + lines[i]);
    view.records.push_back(SplitFields(lines[i].substr(2)));
  }
  return view;
}

DesignData ParseDesign(const std::string& bytes) {
  const std::vector<std::string> lines = CrLfLines(bytes);
  DesignData design;
  if (lines.empty() || lines[0].compare(0, 2, "J!") != 0) throw std::runtime_error("no J! line");
  design.job = SplitFields(lines[0].substr(2));
  DesignTableData* table = nullptr;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const std::string tag = lines[i].substr(0, 2);
    const std::vector<std::string> fields = SplitFields(lines[i].substr(2));
    if (tag == "T!") {
      table = &design.tables[fields.at(0)];
      if (!table->header.empty()) throw std::runtime_error("table twice: " + fields.at(0));
    } else if (tag == "A!" && table && table->header.empty()) {
      table->header = fields;
    } else if (tag == "S!" && table && fields.size() == table->header.size()) {
      std::map<std::string, std::string>& record = table->records.emplace_back();
      for (std::size_t f = 0; f < fields.size(); ++f) record[table->header[f]] = fields[f];
    } else {
      throw std::runtime_error("unexpected design line " + std::to_string(i + 1));
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
                const std::vector<std::string>& extra) {
  std::vector<std::string> argv = {BinPath("make-design"),
                                   "--seed",
                                   std::to_string(seed),
                                   "--conn-records",
                                   std::to_string(connRecords),
                                   "-o",
                                   path,
                                   "--quiet"};
  argv.insert(argv.end(), extra.begin(), extra.end());
  const RunResult result = RunProgram(argv);
  ASSERT_EQ(result.exitCode, 0) << result.err;
}

}  // namespace veltest
