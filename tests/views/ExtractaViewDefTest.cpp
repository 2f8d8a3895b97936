#include "views/ExtractaViewDef.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include "core/VelAssert.h"

namespace {

using Lines = std::vector<std::string>;

Lines Concat(Lines a, const Lines& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::vector<AString> Nets(int count) {
  std::vector<AString> nets;
  for (int i = 0; i < count; ++i) nets.emplace_back("N" + std::to_string(i));
  return nets;
}

const Lines kGeometryConditions = {"NET_NAME != ''",
                                   "PAD_SHAPE_NAME != 'FIG_RECTANGLE'",
                                   "PAD_SHAPE_NAME != 'CIRCLE'",
                                   "PAD_SHAPE_NAME != 'OBLONG_Y'",
                                   "PAD_SHAPE_NAME != 'OBLONG_X'",
                                   "PAD_SHAPE_NAME != 'SQUARE'"};
const Lines kClassExclusions = {"CLASS != 'ANALYSIS'",
                                "CLASS != 'BOARD GEOMETRY'",
                                "CLASS != 'COMPONENT VALUE'",
                                "CLASS != 'DEVICE TYPE'",
                                "CLASS != 'DRAWING FORMAT'",
                                "CLASS != 'DRC ERROR CLASS'",
                                "CLASS != 'ETCH'",
                                "CLASS != 'MANUFACTURING'",
                                "CLASS != 'PACKAGE GEOMETRY'",
                                "CLASS != 'PACKAGE KEEPIN'",
                                "CLASS != 'PACKAGE KEEPOUT'",
                                "CLASS != 'REF DES'",
                                "CLASS != 'ROUTE KEEPIN'",
                                "CLASS != 'ROUTE KEEPOUT'",
                                "CLASS != 'TOLERANCE'",
                                "CLASS != 'USER PART NUMBER'",
                                "CLASS != 'VIA KEEPOUT'",
                                "RAT_CONNECTED != 'YES'",
                                "RAT_CONNECTED != 'NO'"};
const Lines kConnConditions = {"RAT_CONNECTED != 'YES'", "RAT_CONNECTED != 'NO'", "NET_NAME != ''"};
const Lines kConnClasses = {"CLASS = CONDUCTOR", "CLASS = ETCH", "CLASS = PIN",
                            "CLASS = VIA CLASS"};

const Lines kGeometryHead = {
    "NET_NAME_SORT",  "RECORD_TAG",          "CLASS",          "SUBCLASS",
    "NET_NAME",       "GRAPHIC_DATA_NUMBER", "GRAPHIC_DATA_1", "GRAPHIC_DATA_2",
    "GRAPHIC_DATA_3", "GRAPHIC_DATA_4",      "GRAPHIC_DATA_5", "GRAPHIC_DATA_6",
    "GRAPHIC_DATA_7", "GRAPHIC_DATA_8",      "GRAPHIC_DATA_9", "GRAPHIC_DATA_10"};
const Lines kFullGeoFields = Concat(
    kGeometryHead, {"GRAPHIC_DATA_NAME", "REFDES", "PIN_NUMBER", "PIN_TYPE", "PIN_X", "PIN_Y",
                    "PIN_ROTATION", "PIN_ROTATION_ABSOLUTE", "VIA_X", "VIA_Y", "SYM_MIRROR",
                    "SYM_ROTATE", "VIA_MIRROR", "VIA_ROTATION", "BOND_PAD", "PAD_STACK_NAME",
                    "PAD_SHAPE_NAME", "START_LAYER_NAME", "END_LAYER_NAME"});
const Lines kCommonConnFields = {"NET_NAME_SORT",
                                 "NODE_SORT",
                                 "NODE_1_NUMBER",
                                 "NODE_2_NUMBER",
                                 "RECORD_TAG",
                                 "CLASS",
                                 "SUBCLASS",
                                 "NET_NAME",
                                 "GRAPHIC_DATA_NUMBER",
                                 "GRAPHIC_DATA_1",
                                 "GRAPHIC_DATA_2",
                                 "GRAPHIC_DATA_3",
                                 "GRAPHIC_DATA_4",
                                 "GRAPHIC_DATA_5",
                                 "GRAPHIC_DATA_6",
                                 "GRAPHIC_DATA_7",
                                 "GRAPHIC_DATA_8",
                                 "GRAPHIC_DATA_9",
                                 "GRAPHIC_DATA_10",
                                 "REFDES",
                                 "COMP_CLASS",
                                 "PIN_NUMBER",
                                 "PIN_TYPE",
                                 "PIN_X",
                                 "PIN_Y",
                                 "PIN_ROTATION_ABSOLUTE",
                                 "PAD_STACK_NAME",
                                 "START_LAYER_NAME",
                                 "END_LAYER_NAME",
                                 "WIREBOND_PROFILE_NAME",
                                 "WIREBOND_MATERIAL"};
const Lines kConnFields =
    Concat(kCommonConnFields, {"GRAPHIC_DATA_NAME", "VIA_X", "VIA_Y", "SYM_MIRROR", "SYM_ROTATE",
                               "VIA_MIRROR", "VIA_ROTATION", "BOND_PAD"});

struct Expected {
  ViewType type;
  std::string keyword;
  Lines conditions;
  Lines alternatives;
  Lines fields;
};

TEST(ExtractaViewDefTest, EveryViewHasItsKeywordFiltersAndFieldsInOrder) {
  const Expected views[] = {
      {kLayer,
       "LAYER",
       {},
       {},
       {"LAYER_SORT", "LAYER_SUBCLASS", "LAYER_TYPE", "LAYER_ARTWORK", "LAYER_CONDUCTOR",
        "LAYER_DIELECTRIC_CONSTANT", "LAYER_LOSS_TANGENT", "LAYER_ELECTRICAL_CONDUCTIVITY",
        "LAYER_MATERIAL", "LAYER_SHIELD_LAYER", "LAYER_THERMAL_CONDUCTIVITY", "LAYER_THICKNESS"}},
      {kPadDef, "PAD_DEF", {}, {}, {}},
      {kFullGeo,
       "FULL_GEOMETRY",
       Concat(kGeometryConditions, kClassExclusions),
       {},
       kFullGeoFields},
      {kConn, "CONNECTIVITY", kConnConditions, kConnClasses, kConnFields},
      {kCFullGeo,
       "FULL_GEOMETRY",
       Concat(kGeometryConditions, kClassExclusions),
       {},
       kGeometryHead},
      {kCConn,
       "CONNECTIVITY",
       kConnConditions,
       {"CLASS = 'PIN'", "CLASS = 'VIA CLASS'", "WIREBOND_MATERIAL != ''"},
       Concat(kCommonConnFields,
              {"SYM_NAME", "DRILL_HOLE_X", "DRILL_HOLE_Y", "DRILL_FIGURE_SHAPE",
               "DRILL_FIGURE_WIDTH", "DRILL_FIGURE_HEIGHT", "DRILL_FIGURE_ROTATION"})},
      {kDieStack, "DIE_STACK_DEF", {}, {}, {}},
      {kNet, "NET", {}, {}, {"NET_NAME", "NET_BUS_NAME", "NET_DIFFERENTIAL_PAIR"}},
      {kComponent,
       "COMPONENT",
       {},
       {},
       {"REFDES_SORT", "REFDES", "COMP_CLASS", "COMP_DEVICE_TYPE", "COMP_VALUE", "COMP_TOL",
        "COMP_PACKAGE", "COMP_PART_NUMBER", "SYM_X", "SYM_Y", "SYM_ROTATE", "SYM_MIRROR",
        "SYM_BOX_X1", "SYM_BOX_Y1", "SYM_BOX_X2", "SYM_BOX_Y2"}},
      {kOutline,
       "GEOMETRY",
       {"SUBCLASS = 'OUTLINE'"},
       {"CLASS = 'BOARD GEOMETRY'", "CLASS = 'SUBSTRATE GEOMETRY'"},
       {"CLASS", "SUBCLASS", "RECORD_TAG", "GRAPHIC_DATA_NAME", "GRAPHIC_DATA_NUMBER",
        "GRAPHIC_DATA_1", "GRAPHIC_DATA_2", "GRAPHIC_DATA_3", "GRAPHIC_DATA_4", "GRAPHIC_DATA_5",
        "GRAPHIC_DATA_6", "GRAPHIC_DATA_7", "GRAPHIC_DATA_8", "GRAPHIC_DATA_9", "GRAPHIC_DATA_10"}},
      {kCompositePad,
       "COMPOSITE_PAD",
       {},
       {"DRILL_ARRAY_ROWS != ''", "BACKDRILL_TOP_LAYER != ''", "BACKDRILL_BOTTOM_LAYER != ''"},
       {"PAD_STACK_NAME", "GRAPHIC_DATA_NAME", "START_LAYER_NAME", "END_LAYER_NAME", "NET_NAME",
        "DRILL_HOLE_NAME", "DRILL_ARRAY_LOCATIONS", "BACKDRILL_TOP_LAYER", "BACKDRILL_BOTTOM_LAYER",
        "BACKDRILL_SIZE", "PIN_X", "PIN_Y", "PIN_ROTATION_ABSOLUTE", "VIA_X", "VIA_Y",
        "VIA_ROTATION"}},
      {kLogicalPin,
       "LOGICAL_PIN",
       {},
       {},
       {"REFDES_SORT", "REFDES", "FUNC_DES", "PIN_NUMBER", "PIN_PINUSE"}},
  };
  for (const Expected& view : views) {
    SCOPED_TRACE(view.keyword + " (" + std::to_string(view.type) + ")");
    const ExtractaViewDef def(view.type, {}, false);
    EXPECT_EQ(def.viewType, view.type);
    EXPECT_EQ(def.extractaView, view.keyword);
    EXPECT_EQ(def.conditions, view.conditions);
    EXPECT_EQ(def.alternatives, view.alternatives);
    EXPECT_TRUE(def.netAlternatives.empty());
    EXPECT_EQ(def.fields, view.fields);
  }
  // The counts the field tables are known by.
  EXPECT_EQ(kFullGeoFields.size(), 35u);
  EXPECT_EQ(kConnFields.size(), 39u);
  EXPECT_EQ(ExtractaViewDef(kFullGeo, {}, false).conditions.size(), 25u);
}

TEST(ExtractaViewDefTest, NetFiltersFollowTheCountOfNets) {
  // One net: a condition every record must meet.
  ExtractaViewDef one(kConn, {AString("GND")}, false);
  EXPECT_EQ(one.conditions, Concat(kConnConditions, {"NET_NAME ='GND'"}));
  EXPECT_TRUE(one.netAlternatives.empty());
  EXPECT_EQ(one.alternatives, kConnClasses);

  // Two to eleven nets: alternatives, with the view's own kept but unused.
  const ExtractaViewDef three(kConn, {AString("A"), AString("B"), AString("C")}, false);
  EXPECT_EQ(three.conditions, kConnConditions);
  EXPECT_EQ(three.netAlternatives, (Lines{"NET_NAME ='A'", "NET_NAME ='B'", "NET_NAME ='C'"}));
  EXPECT_EQ(three.alternatives, kConnClasses);
  EXPECT_EQ(ExtractaViewDef(kCConn, Nets(2), false).netAlternatives.size(), 2u);
  const ExtractaViewDef eleven(kConn, Nets(11), false);
  ASSERT_EQ(eleven.netAlternatives.size(), 11u);
  EXPECT_EQ(eleven.netAlternatives.back(), "NET_NAME ='N10'");

  // Twelve or more: no restriction at all, whether including or excluding.
  for (const bool exclude : {false, true}) {
    const ExtractaViewDef twelve(kConn, Nets(12), exclude);
    EXPECT_EQ(twelve.conditions, kConnConditions);
    EXPECT_TRUE(twelve.netAlternatives.empty());
  }

  // Excluding: every net is a condition, whatever their number.
  const ExtractaViewDef remainder(kConn, {AString("GND"), AString("VDD")}, true);
  EXPECT_EQ(remainder.conditions,
            Concat(kConnConditions, {"NET_NAME !='GND'", "NET_NAME !='VDD'"}));
  EXPECT_TRUE(remainder.netAlternatives.empty());
  EXPECT_EQ(remainder.alternatives, kConnClasses);

  // Views without nets ignore them.
  for (const ViewType type : {kLayer, kNet, kOutline, kCompositePad}) {
    const ExtractaViewDef plain(type, {}, false);
    const ExtractaViewDef filtered(type, Nets(2), false);
    const ExtractaViewDef single(type, Nets(1), true);
    EXPECT_EQ(filtered.conditions, plain.conditions) << type;
    EXPECT_EQ(single.conditions, plain.conditions) << type;
    EXPECT_TRUE(filtered.netAlternatives.empty()) << type;
  }
}

TEST(ExtractaViewDefTest, NetNamesAreWrittenAsTheirNarrowBytesUnquoted) {
  const ExtractaViewDef def(kFullGeo, {AString(L"Gr\u00FC\u00DFe"), AString("O'NEIL")}, true);
  EXPECT_EQ(def.conditions[6],
            "NET_NAME !='Gr\xC3\xBC\xC3\x9F"
            "e'");
  EXPECT_EQ(def.conditions[7], "NET_NAME !='O'NEIL'");
}

TEST(ExtractaViewDefTest, ClassExclusionsOnlyForUnrestrictedFullGeometry) {
  for (const ViewType type : {kFullGeo, kCFullGeo}) {
    SCOPED_TRACE(type);
    // One included net lands in the conditions: the exclusions follow it.
    EXPECT_EQ(ExtractaViewDef(type, {AString("A")}, false).conditions,
              Concat(Concat(kGeometryConditions, {"NET_NAME ='A'"}), kClassExclusions));
    // Excluded nets too.
    EXPECT_EQ(ExtractaViewDef(type, Nets(3), true).conditions.size(), 6u + 3u + 19u);
    // Two to eleven included nets: alternatives, and no exclusions.
    EXPECT_EQ(ExtractaViewDef(type, Nets(2), false).conditions, kGeometryConditions);
    EXPECT_EQ(ExtractaViewDef(type, Nets(11), false).conditions, kGeometryConditions);
    EXPECT_EQ(ExtractaViewDef(type, Nets(12), false).conditions.size(), 25u);
  }
  // Views with alternatives of their own, or without net geometry, never.
  EXPECT_EQ(ExtractaViewDef(kConn, {}, false).conditions, kConnConditions);
  EXPECT_EQ(ExtractaViewDef(kLayer, {}, false).conditions, Lines{});
  EXPECT_EQ(ExtractaViewDef(kOutline, {}, false).conditions, Lines{"SUBCLASS = 'OUTLINE'"});
}

TEST(ExtractaViewDefTest, KeepingUnnamedNetsDropsTheNetNameCondition) {
  keepUnnamedNets = true;
  const ExtractaViewDef geometry(kFullGeo, {}, false);
  const ExtractaViewDef connectivity(kCConn, {}, false);
  keepUnnamedNets = false;
  EXPECT_EQ(
      geometry.conditions,
      Concat(Lines(kGeometryConditions.begin() + 1, kGeometryConditions.end()), kClassExclusions));
  EXPECT_EQ(connectivity.conditions, (Lines{"RAT_CONNECTED != 'YES'", "RAT_CONNECTED != 'NO'"}));
}

TEST(ExtractaViewDefTest, NetListAndNetClassDefinitions) {
  const ExtractaViewDef survey = ExtractaViewDef::MakeNetListDef({});
  EXPECT_EQ(survey.viewType, kConn);
  EXPECT_EQ(survey.extractaView, "CONNECTIVITY");
  EXPECT_EQ(survey.fields, Lines{"NET_NAME"});
  EXPECT_TRUE(survey.conditions.empty());
  EXPECT_TRUE(survey.alternatives.empty());
  EXPECT_EQ(ExtractaViewDef::MakeNetListDef(Nets(2)).netAlternatives,
            (Lines{"NET_NAME ='N0'", "NET_NAME ='N1'"}));
  EXPECT_EQ(ExtractaViewDef::MakeNetListDef(Nets(1)).conditions, Lines{"NET_NAME ='N0'"});

  const ExtractaViewDef pins = ExtractaViewDef::MakeNetClassDef(AString("GND"), {AString("PIN")});
  EXPECT_EQ(pins.viewType, kConn);
  EXPECT_EQ(pins.extractaView, "CONNECTIVITY");
  EXPECT_EQ(pins.conditions, Concat(kConnConditions, {"NET_NAME ='GND'"}));
  EXPECT_EQ(pins.alternatives, Lines{"CLASS = PIN"});
  EXPECT_TRUE(pins.netAlternatives.empty());
  EXPECT_EQ(pins.fields, kConnFields);

  const ExtractaViewDef copper =
      ExtractaViewDef::MakeNetClassDef(AString("VDD"), {AString("CONDUCTOR"), AString("ETCH")});
  EXPECT_EQ(copper.alternatives, (Lines{"CLASS = CONDUCTOR", "CLASS = ETCH"}));
}

TEST(ExtractaViewDefTest, InitDefaultsAppendsAndReportsAnUnknownType) {
  ExtractaViewDef def(kNet, {}, false);
  def.InitDefaults(false);  // never clears: the fields are there twice
  EXPECT_EQ(def.fields.size(), 6u);
  def.AddClassAlternatives({AString("VIA CLASS")});
  EXPECT_EQ(def.alternatives, Lines{"CLASS = VIA CLASS"});

  ScopedAssertCapture capture;
  ExtractaViewDef unknown(kLayer, {}, false);
  unknown.viewType = static_cast<ViewType>(12);
  const ExtractaViewDef before = unknown;
  unknown.InitDefaults(false);
  EXPECT_EQ(unknown.extractaView, before.extractaView);
  EXPECT_EQ(unknown.fields, before.fields);
  ASSERT_EQ(capture.reports().size(), 1u);
  EXPECT_EQ(capture.reports()[0].source, "ExtractaViewControl");
  EXPECT_EQ(capture.reports()[0].line, 383);
  EXPECT_EQ(capture.reports()[0].condition,
            "!\"ExtractaViewDef InitDefaults failed: unexpected viewType\"");

  // The general constructor reports, then the net filter step throws.
  capture.Clear();
  try {
    ExtractaViewDef bad(static_cast<ViewType>(-1), {}, false);
    ADD_FAILURE() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "invalid bitset<N> position");
  }
  EXPECT_EQ(capture.reports().size(), 1u);
}

}  // namespace
