#include "views/ExtractaViewDef.h"

#include "core/VelAssert.h"

bool keepUnnamedNets = false;

namespace {

using Lines = std::vector<std::string>;

void Append(Lines& to, const Lines& from) { to.insert(to.end(), from.begin(), from.end()); }

// "GRAPHIC_DATA_1" .. "GRAPHIC_DATA_10", the coordinate columns of a figure.
void AppendGraphicData(Lines& to) {
  for (int i = 1; i <= 10; ++i) to.push_back("GRAPHIC_DATA_" + std::to_string(i));
}

// Full geometry leaves out unnamed nets (unless kept) and the plain pad shapes.
void AppendGeometryConditions(Lines& to) {
  if (!keepUnnamedNets) to.push_back("NET_NAME != ''");
  Append(to, {"PAD_SHAPE_NAME != 'FIG_RECTANGLE'", "PAD_SHAPE_NAME != 'CIRCLE'",
              "PAD_SHAPE_NAME != 'OBLONG_Y'", "PAD_SHAPE_NAME != 'OBLONG_X'",
              "PAD_SHAPE_NAME != 'SQUARE'"});
}

// Connectivity leaves out ratsnest records and (unless kept) unnamed nets.
void AppendConnectivityConditions(Lines& to) {
  Append(to, {"RAT_CONNECTED != 'YES'", "RAT_CONNECTED != 'NO'"});
  if (!keepUnnamedNets) to.push_back("NET_NAME != ''");
}

// The columns that both connectivity views report, before their own ones.
void AppendCommonConnectivityFields(Lines& to) {
  Append(to, {"NET_NAME_SORT", "NODE_SORT", "NODE_1_NUMBER", "NODE_2_NUMBER", "RECORD_TAG", "CLASS",
              "SUBCLASS", "NET_NAME", "GRAPHIC_DATA_NUMBER"});
  AppendGraphicData(to);
  Append(to, {"REFDES", "COMP_CLASS", "PIN_NUMBER", "PIN_TYPE", "PIN_X", "PIN_Y",
              "PIN_ROTATION_ABSOLUTE", "PAD_STACK_NAME", "START_LAYER_NAME", "END_LAYER_NAME",
              "WIREBOND_PROFILE_NAME", "WIREBOND_MATERIAL"});
}

// The first 16 columns of a full-geometry view; the cell-mode view stops here.
void AppendGeometryHeadFields(Lines& to) {
  Append(to,
         {"NET_NAME_SORT", "RECORD_TAG", "CLASS", "SUBCLASS", "NET_NAME", "GRAPHIC_DATA_NUMBER"});
  AppendGraphicData(to);
}

}  // namespace

ExtractaViewDef::ExtractaViewDef(ViewType type) : viewType(type) {}

ExtractaViewDef::ExtractaViewDef(ViewType type, const std::vector<AString>& nets, bool exclude)
    : viewType(type) {
  InitDefaults(false);
  AddNetFilters(nets, exclude);
  AddClassExclusions();
}

void ExtractaViewDef::InitDefaults(bool skipDefaultClasses) {
  switch (viewType) {
    case kLayer:
      extractaView = "LAYER";
      Append(fields, {"LAYER_SORT", "LAYER_SUBCLASS", "LAYER_TYPE", "LAYER_ARTWORK",
                      "LAYER_CONDUCTOR", "LAYER_DIELECTRIC_CONSTANT", "LAYER_LOSS_TANGENT",
                      "LAYER_ELECTRICAL_CONDUCTIVITY", "LAYER_MATERIAL", "LAYER_SHIELD_LAYER",
                      "LAYER_THERMAL_CONDUCTIVITY", "LAYER_THICKNESS"});
      break;
    case kPadDef:
      extractaView = "PAD_DEF";
      break;
    case kFullGeo:
      extractaView = "FULL_GEOMETRY";
      AppendGeometryConditions(conditions);
      AppendGeometryHeadFields(fields);
      Append(fields, {"GRAPHIC_DATA_NAME", "REFDES", "PIN_NUMBER", "PIN_TYPE", "PIN_X", "PIN_Y",
                      "PIN_ROTATION", "PIN_ROTATION_ABSOLUTE", "VIA_X", "VIA_Y", "SYM_MIRROR",
                      "SYM_ROTATE", "VIA_MIRROR", "VIA_ROTATION", "BOND_PAD", "PAD_STACK_NAME",
                      "PAD_SHAPE_NAME", "START_LAYER_NAME", "END_LAYER_NAME"});
      break;
    case kConn:
      extractaView = "CONNECTIVITY";
      AppendConnectivityConditions(conditions);
      if (!skipDefaultClasses) AddClassAlternatives({"CONDUCTOR", "ETCH", "PIN", "VIA CLASS"});
      AppendCommonConnectivityFields(fields);
      Append(fields, {"GRAPHIC_DATA_NAME", "VIA_X", "VIA_Y", "SYM_MIRROR", "SYM_ROTATE",
                      "VIA_MIRROR", "VIA_ROTATION", "BOND_PAD"});
      break;
    case kCFullGeo:
      extractaView = "FULL_GEOMETRY";
      AppendGeometryConditions(conditions);
      AppendGeometryHeadFields(fields);
      break;
    case kCConn:
      // The cell-mode classes are quoted literals and do not depend on
      // skipDefaultClasses.
      extractaView = "CONNECTIVITY";
      AppendConnectivityConditions(conditions);
      Append(alternatives, {"CLASS = 'PIN'", "CLASS = 'VIA CLASS'", "WIREBOND_MATERIAL != ''"});
      AppendCommonConnectivityFields(fields);
      Append(fields, {"SYM_NAME", "DRILL_HOLE_X", "DRILL_HOLE_Y", "DRILL_FIGURE_SHAPE",
                      "DRILL_FIGURE_WIDTH", "DRILL_FIGURE_HEIGHT", "DRILL_FIGURE_ROTATION"});
      break;
    case kDieStack:
      extractaView = "DIE_STACK_DEF";
      break;
    case kNet:
      extractaView = "NET";
      Append(fields, {"NET_NAME", "NET_BUS_NAME", "NET_DIFFERENTIAL_PAIR"});
      break;
    case kComponent:
      extractaView = "COMPONENT";
      Append(fields,
             {"REFDES_SORT", "REFDES", "COMP_CLASS", "COMP_DEVICE_TYPE", "COMP_VALUE", "COMP_TOL",
              "COMP_PACKAGE", "COMP_PART_NUMBER", "SYM_X", "SYM_Y", "SYM_ROTATE", "SYM_MIRROR",
              "SYM_BOX_X1", "SYM_BOX_Y1", "SYM_BOX_X2", "SYM_BOX_Y2"});
      break;
    case kOutline:
      extractaView = "GEOMETRY";
      conditions.push_back("SUBCLASS = 'OUTLINE'");
      Append(alternatives, {"CLASS = 'BOARD GEOMETRY'", "CLASS = 'SUBSTRATE GEOMETRY'"});
      Append(fields,
             {"CLASS", "SUBCLASS", "RECORD_TAG", "GRAPHIC_DATA_NAME", "GRAPHIC_DATA_NUMBER"});
      AppendGraphicData(fields);
      break;
    case kCompositePad:
      extractaView = "COMPOSITE_PAD";
      Append(alternatives, {"DRILL_ARRAY_ROWS != ''", "BACKDRILL_TOP_LAYER != ''",
                            "BACKDRILL_BOTTOM_LAYER != ''"});
      Append(fields, {"PAD_STACK_NAME", "GRAPHIC_DATA_NAME", "START_LAYER_NAME", "END_LAYER_NAME",
                      "NET_NAME", "DRILL_HOLE_NAME", "DRILL_ARRAY_LOCATIONS", "BACKDRILL_TOP_LAYER",
                      "BACKDRILL_BOTTOM_LAYER", "BACKDRILL_SIZE", "PIN_X", "PIN_Y",
                      "PIN_ROTATION_ABSOLUTE", "VIA_X", "VIA_Y", "VIA_ROTATION"});
      break;
    case kLogicalPin:
      extractaView = "LOGICAL_PIN";
      Append(fields, {"REFDES_SORT", "REFDES", "FUNC_DES", "PIN_NUMBER", "PIN_PINUSE"});
      break;
    default:
      VEL_ASSERT_REPORT("ExtractaViewControl", 383, false,
                        "!\"ExtractaViewDef InitDefaults failed: unexpected viewType\"");
      break;
  }
}

void ExtractaViewDef::AddNetFilters(const std::vector<AString>& nets, bool exclude) {
  if (!kNetFilterableViews.Contains(viewType)) return;
  // With twelve or more nets the view is not restricted at all.
  if (nets.size() > 11) return;
  const std::string prefix = exclude ? "NET_NAME !='" : "NET_NAME ='";
  // One selected net is a condition every record must meet; several are
  // alternatives, of which one must hold.
  Lines& target = (exclude || nets.size() == 1) ? conditions : netAlternatives;
  for (const AString& net : nets) target.push_back(prefix + VEL_ANSI(net) + "'");
}

void ExtractaViewDef::AddClassAlternatives(const std::vector<AString>& classes) {
  for (const AString& name : classes) alternatives.push_back("CLASS = " + VEL_ANSI(name));
}

void ExtractaViewDef::AddClassExclusions() {
  // Only an unfiltered full-geometry view needs them: any alternative already
  // narrows the records to the classes it names.
  if (!netAlternatives.empty() || !alternatives.empty()) return;
  if (viewType != kFullGeo && viewType != kCFullGeo) return;
  Append(conditions,
         {"CLASS != 'ANALYSIS'", "CLASS != 'BOARD GEOMETRY'", "CLASS != 'COMPONENT VALUE'",
          "CLASS != 'DEVICE TYPE'", "CLASS != 'DRAWING FORMAT'", "CLASS != 'DRC ERROR CLASS'",
          "CLASS != 'ETCH'", "CLASS != 'MANUFACTURING'", "CLASS != 'PACKAGE GEOMETRY'",
          "CLASS != 'PACKAGE KEEPIN'", "CLASS != 'PACKAGE KEEPOUT'", "CLASS != 'REF DES'",
          "CLASS != 'ROUTE KEEPIN'", "CLASS != 'ROUTE KEEPOUT'", "CLASS != 'TOLERANCE'",
          "CLASS != 'USER PART NUMBER'", "CLASS != 'VIA KEEPOUT'", "RAT_CONNECTED != 'YES'",
          "RAT_CONNECTED != 'NO'"});
}

ExtractaViewDef ExtractaViewDef::MakeNetListDef(const std::vector<AString>& nets) {
  ExtractaViewDef def(kConn);
  def.extractaView = "CONNECTIVITY";
  def.fields.push_back("NET_NAME");
  def.AddNetFilters(nets, false);
  return def;
}

ExtractaViewDef ExtractaViewDef::MakeNetClassDef(const AString& net,
                                                 const std::vector<AString>& classes) {
  ExtractaViewDef def(kConn);
  def.InitDefaults(true);
  def.AddNetFilters({net}, false);
  def.AddClassAlternatives(classes);
  return def;
}
