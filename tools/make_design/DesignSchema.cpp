#include "tools/make_design/DesignSchema.h"

#include <stdexcept>
#include <string>

namespace make_design {

namespace {

using F = Field;

#define MAKE_DESIGN_NAME(name) #name,
constexpr std::string_view kFieldNames[] = {MAKE_DESIGN_FIELDS(MAKE_DESIGN_NAME)};
#undef MAKE_DESIGN_NAME
static_assert(sizeof kFieldNames / sizeof kFieldNames[0] == kFieldCount);

std::vector<Field> GraphicData() {
  return {F::GRAPHIC_DATA_1, F::GRAPHIC_DATA_2, F::GRAPHIC_DATA_3, F::GRAPHIC_DATA_4,
          F::GRAPHIC_DATA_5, F::GRAPHIC_DATA_6, F::GRAPHIC_DATA_7, F::GRAPHIC_DATA_8,
          F::GRAPHIC_DATA_9, F::GRAPHIC_DATA_10};
}

std::vector<Field> Concat(std::vector<Field> first, const std::vector<Field>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

std::vector<TableLayout> BuildTables() {
  std::vector<TableLayout> tables;
  tables.push_back({"LAYER",
                    {F::LAYER_SORT, F::LAYER_SUBCLASS, F::LAYER_TYPE, F::LAYER_ARTWORK,
                     F::LAYER_CONDUCTOR, F::LAYER_DIELECTRIC_CONSTANT, F::LAYER_LOSS_TANGENT,
                     F::LAYER_ELECTRICAL_CONDUCTIVITY, F::LAYER_MATERIAL, F::LAYER_SHIELD_LAYER,
                     F::LAYER_THERMAL_CONDUCTIVITY, F::LAYER_THICKNESS}});
  tables.push_back(
      {"PAD_DEF",
       {F::PAD_STACK_NAME, F::PAD_STACK_TYPE, F::PAD_STACK_PLATED, F::LAYER_NAME, F::PAD_TYPE,
        F::PAD_SHAPE_NAME, F::PAD_FIGURE, F::PAD_WIDTH, F::PAD_HEIGHT, F::PAD_OFFSET_X,
        F::PAD_OFFSET_Y, F::START_LAYER_NAME, F::END_LAYER_NAME, F::DRILL_HOLE_NAME,
        F::DRILL_FIGURE_SHAPE, F::DRILL_FIGURE_WIDTH, F::DRILL_FIGURE_HEIGHT}});
  tables.push_back({"DIE_STACK_DEF",
                    {F::DIE_STACK_NAME, F::REFDES, F::DIE_ORDER, F::DIE_ORIENTATION,
                     F::DIE_ATTACH_METHOD, F::DIE_THICKNESS, F::SPACER_THICKNESS,
                     F::SPACER_MATERIAL, F::DIE_STACK_X, F::DIE_STACK_Y}});
  tables.push_back({"NET",
                    {F::NET_NAME, F::NET_BUS_NAME, F::NET_DIFFERENTIAL_PAIR, F::NET_PHYSICAL_TYPE,
                     F::NET_VOLTAGE}});
  tables.push_back({"COMPONENT",
                    {F::REFDES_SORT, F::REFDES, F::COMP_CLASS, F::COMP_DEVICE_TYPE, F::COMP_VALUE,
                     F::COMP_TOL, F::COMP_PACKAGE, F::COMP_PART_NUMBER, F::SYM_X, F::SYM_Y,
                     F::SYM_ROTATE, F::SYM_MIRROR, F::SYM_BOX_X1, F::SYM_BOX_Y1, F::SYM_BOX_X2,
                     F::SYM_BOX_Y2, F::SYM_NAME, F::COMP_PIN_COUNT}});
  tables.push_back(
      {"LOGICAL_PIN",
       {F::REFDES_SORT, F::REFDES, F::FUNC_DES, F::PIN_NUMBER, F::PIN_PINUSE, F::NET_NAME}});
  tables.push_back(
      {"COMPOSITE_PAD",
       {F::PAD_STACK_NAME, F::GRAPHIC_DATA_NAME, F::START_LAYER_NAME, F::END_LAYER_NAME,
        F::NET_NAME, F::DRILL_HOLE_NAME, F::DRILL_ARRAY_LOCATIONS, F::BACKDRILL_TOP_LAYER,
        F::BACKDRILL_BOTTOM_LAYER, F::BACKDRILL_SIZE, F::PIN_X, F::PIN_Y, F::PIN_ROTATION_ABSOLUTE,
        F::VIA_X, F::VIA_Y, F::VIA_ROTATION, F::DRILL_ARRAY_ROWS, F::DRILL_ARRAY_COLUMNS}});
  tables.push_back({"GEOMETRY", Concat({F::CLASS, F::SUBCLASS, F::RECORD_TAG, F::GRAPHIC_DATA_NAME,
                                        F::GRAPHIC_DATA_NUMBER},
                                       Concat(GraphicData(), {F::REFDES}))});
  tables.push_back(
      {"FULL_GEOMETRY",
       Concat(Concat({F::NET_NAME_SORT, F::RECORD_TAG, F::CLASS, F::RAT_CONNECTED, F::SUBCLASS,
                      F::NET_NAME, F::GRAPHIC_DATA_NUMBER},
                     GraphicData()),
              {F::GRAPHIC_DATA_NAME, F::REFDES, F::PIN_NUMBER, F::PIN_TYPE, F::PIN_X, F::PIN_Y,
               F::PIN_ROTATION, F::PIN_ROTATION_ABSOLUTE, F::VIA_X, F::VIA_Y, F::SYM_MIRROR,
               F::SYM_ROTATE, F::VIA_MIRROR, F::VIA_ROTATION, F::BOND_PAD, F::PAD_STACK_NAME,
               F::PAD_SHAPE_NAME, F::START_LAYER_NAME, F::END_LAYER_NAME})});
  tables.push_back(
      {"CONNECTIVITY", Concat(Concat({F::NET_NAME_SORT, F::NODE_SORT, F::NODE_1_NUMBER,
                                      F::NODE_2_NUMBER, F::RECORD_TAG, F::CLASS, F::SUBCLASS,
                                      F::NET_NAME, F::RAT_CONNECTED, F::GRAPHIC_DATA_NUMBER},
                                     GraphicData()),
                              {F::GRAPHIC_DATA_NAME,
                               F::REFDES,
                               F::COMP_CLASS,
                               F::PIN_NUMBER,
                               F::PIN_TYPE,
                               F::PIN_X,
                               F::PIN_Y,
                               F::PIN_ROTATION_ABSOLUTE,
                               F::PAD_STACK_NAME,
                               F::START_LAYER_NAME,
                               F::END_LAYER_NAME,
                               F::WIREBOND_PROFILE_NAME,
                               F::WIREBOND_MATERIAL,
                               F::VIA_X,
                               F::VIA_Y,
                               F::SYM_MIRROR,
                               F::SYM_ROTATE,
                               F::VIA_MIRROR,
                               F::VIA_ROTATION,
                               F::BOND_PAD,
                               F::SYM_NAME,
                               F::DRILL_HOLE_X,
                               F::DRILL_HOLE_Y,
                               F::DRILL_FIGURE_SHAPE,
                               F::DRILL_FIGURE_WIDTH,
                               F::DRILL_FIGURE_HEIGHT,
                               F::DRILL_FIGURE_ROTATION})});
  return tables;
}

}  // namespace

std::string_view FieldName(Field field) { return kFieldNames[static_cast<std::size_t>(field)]; }

const std::vector<TableLayout>& DesignTables() {
  static const std::vector<TableLayout> tables = BuildTables();
  return tables;
}

const TableLayout& TableFor(std::string_view keyword) {
  for (const TableLayout& table : DesignTables()) {
    if (table.keyword == keyword) return table;
  }
  throw std::logic_error("no design table " + std::string(keyword));
}

}  // namespace make_design
