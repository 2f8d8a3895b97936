#pragma once
// The tables of a design snapshot and the fields each one knows, in column
// order. Every field that a view asks for or filters on is here, in the table
// of that view's keyword, along with a few that no view asks for (a real
// design knows more than the views report). Column orders differ from the
// views' field orders here and there, as a real design's do.

#include <cstdint>
#include <string_view>
#include <vector>

namespace make_design {

#define MAKE_DESIGN_FIELDS(X)                                                                      \
  X(BACKDRILL_BOTTOM_LAYER)                                                                        \
  X(BACKDRILL_SIZE)                                                                                \
  X(BACKDRILL_TOP_LAYER)                                                                           \
  X(BOND_PAD) X(CLASS) X(COMP_CLASS) X(COMP_DEVICE_TYPE) X(COMP_PACKAGE) X(COMP_PART_NUMBER) X(    \
      COMP_PIN_COUNT) X(COMP_TOL) X(COMP_VALUE) X(DIE_ATTACH_METHOD) X(DIE_ORDER)                  \
      X(DIE_ORIENTATION) X(DIE_STACK_NAME) X(DIE_STACK_X) X(DIE_STACK_Y) X(DIE_THICKNESS) X(       \
          DRILL_ARRAY_COLUMNS) X(DRILL_ARRAY_LOCATIONS) X(DRILL_ARRAY_ROWS) X(DRILL_FIGURE_HEIGHT) \
          X(DRILL_FIGURE_ROTATION) X(DRILL_FIGURE_SHAPE) X(DRILL_FIGURE_WIDTH) X(DRILL_HOLE_NAME)  \
              X(DRILL_HOLE_X) X(DRILL_HOLE_Y) X(END_LAYER_NAME) X(FUNC_DES) X(GRAPHIC_DATA_1) X(   \
                  GRAPHIC_DATA_2) X(GRAPHIC_DATA_3) X(GRAPHIC_DATA_4) X(GRAPHIC_DATA_5)            \
                  X(GRAPHIC_DATA_6) X(GRAPHIC_DATA_7) X(GRAPHIC_DATA_8) X(GRAPHIC_DATA_9) X(       \
                      GRAPHIC_DATA_10) X(GRAPHIC_DATA_NAME) X(GRAPHIC_DATA_NUMBER)                 \
                      X(LAYER_ARTWORK) X(LAYER_CONDUCTOR) X(LAYER_DIELECTRIC_CONSTANT) X(          \
                          LAYER_ELECTRICAL_CONDUCTIVITY) X(LAYER_LOSS_TANGENT) X(LAYER_MATERIAL)   \
                          X(LAYER_NAME) X(LAYER_SHIELD_LAYER) X(LAYER_SORT) X(LAYER_SUBCLASS) X(   \
                              LAYER_THERMAL_CONDUCTIVITY) X(LAYER_THICKNESS) X(LAYER_TYPE)         \
                              X(NET_BUS_NAME) X(NET_DIFFERENTIAL_PAIR) X(NET_NAME) X(              \
                                  NET_NAME_SORT) X(NET_PHYSICAL_TYPE) X(NET_VOLTAGE)               \
                                  X(NODE_1_NUMBER) X(NODE_2_NUMBER) X(NODE_SORT) X(PAD_FIGURE) X(  \
                                      PAD_HEIGHT) X(PAD_OFFSET_X) X(PAD_OFFSET_Y)                  \
                                      X(PAD_SHAPE_NAME) X(PAD_STACK_NAME) X(PAD_STACK_PLATED) X(   \
                                          PAD_STACK_TYPE) X(PAD_TYPE) X(PAD_WIDTH) X(PIN_NUMBER)   \
                                          X(PIN_PINUSE) X(PIN_ROTATION) X(PIN_ROTATION_ABSOLUTE)   \
                                              X(PIN_TYPE) X(PIN_X) X(PIN_Y) X(RAT_CONNECTED) X(    \
                                                  RECORD_TAG) X(REFDES) X(REFDES_SORT)             \
                                                  X(SPACER_MATERIAL) X(SPACER_THICKNESS) X(        \
                                                      START_LAYER_NAME) X(SUBCLASS) X(SYM_BOX_X1)  \
                                                      X(SYM_BOX_X2) X(SYM_BOX_Y1) X(SYM_BOX_Y2)    \
                                                          X(SYM_MIRROR) X(SYM_NAME) X(SYM_ROTATE)  \
                                                              X(SYM_X) X(SYM_Y) X(VIA_MIRROR) X(   \
                                                                  VIA_ROTATION) X(VIA_X) X(VIA_Y)  \
                                                                  X(WIREBOND_MATERIAL)             \
                                                                      X(WIREBOND_PROFILE_NAME)

enum class Field : std::uint8_t {
#define MAKE_DESIGN_ENUM(name) name,
  MAKE_DESIGN_FIELDS(MAKE_DESIGN_ENUM)
#undef MAKE_DESIGN_ENUM
      kCount
};

constexpr std::size_t kFieldCount = static_cast<std::size_t>(Field::kCount);

std::string_view FieldName(Field field);

struct TableLayout {
  std::string_view keyword;
  std::vector<Field> fields;
};

// The tables in the order a snapshot holds them: the small ones first, so a
// request for one of them is answered without reading past the large ones.
const std::vector<TableLayout>& DesignTables();
const TableLayout& TableFor(std::string_view keyword);

}  // namespace make_design
