// The tables that describe the package itself: job, layers, pad
// definitions, die stacks, nets, components, logical pins, composite pads and
// outlines.

#include "tools/make_design/Generator.h"

#include <algorithm>
#include <ctime>
#include "tools/common/Platform.h"

namespace make_design {

void Generator::writeJob() {
  const std::string name =
      options_.name.empty() ? "pkg_" + std::to_string(options_.seed) + ".mcm" : options_.name;
  const std::string title =
      options_.title.empty() ? "PKG " + std::to_string(options_.seed) : options_.title;
  // A save date drawn from the seed: the snapshot's bytes never depend on
  // when it was made.
  const time_t saved = static_cast<time_t>(1767225600 + (options_.seed * 2654435761u) % 31536000);
  const std::tm when = veltools::UniversalTime(saved);
  char date[64];
  std::strftime(date, sizeof date, "%a %b %d %H:%M:%S %Y", &when);

  std::string& b = out_.buffer();
  b += "J!" + name + "!" + date + "!";
  TableWriter::AppendFixed(b, -extent_, kCoordDecimals);
  b += '!';
  TableWriter::AppendFixed(b, -extent_, kCoordDecimals);
  b += '!';
  TableWriter::AppendFixed(b, extent_, kCoordDecimals);
  b += '!';
  TableWriter::AppendFixed(b, extent_, kCoordDecimals);
  b += "!0.01!um!" + title + "!0.010000 um!" + std::to_string(conductors_.size()) +
       "!UP TO DATE!\r\n";
}

void Generator::writeLayers() {
  TableWriter t(TableFor("LAYER"), out_);
  for (std::size_t i = 0; i < stack_.size(); ++i) {
    const Layer& layer = stack_[i];
    const std::string sort = Padded(i + 1, 3);
    t.set(F::LAYER_SORT, sort)
        .set(F::LAYER_SUBCLASS, layer.name)
        .set(F::LAYER_TYPE, layer.type)
        .set(F::LAYER_ARTWORK, layer.conductor        ? "POSITIVE"
                               : layer.type == "MASK" ? "NEGATIVE"
                                                      : "")
        .set(F::LAYER_CONDUCTOR, layer.conductor ? "YES" : "NO")
        .set(F::LAYER_DIELECTRIC_CONSTANT, layer.conductor               ? "1.000000"
                                           : layer.material == "BT_CORE" ? "4.400000"
                                                                         : "3.300000")
        .set(F::LAYER_LOSS_TANGENT, layer.conductor ? "0.000000" : "0.008000")
        .set(F::LAYER_ELECTRICAL_CONDUCTIVITY, layer.conductor ? "595900 mho/cm" : "0 mho/cm")
        .set(F::LAYER_MATERIAL, layer.material)
        .set(F::LAYER_SHIELD_LAYER, layer.type == "PLANE" ? "YES" : "NO")
        .set(F::LAYER_THERMAL_CONDUCTIVITY,
             layer.conductor ? "3.850000 W/cm-degC" : "0.003000 W/cm-degC")
        .set(F::LAYER_THICKNESS, layer.thicknessText);
    t.next();
  }
  endTable(t);
}

void Generator::writePadDefinitions() {
  TableWriter t(TableFor("PAD_DEF"), out_);
  const int last = static_cast<int>(conductors_.size()) - 1;
  for (const Padstack& padstack : padstacks_) {
    const int start = padstack.startLayer < 0 ? last : padstack.startLayer;
    const int end = padstack.endLayer < 0 ? last : padstack.endLayer;
    for (int layer = start; layer <= end; ++layer) {
      const bool plane = conductors_[layer].find("_GND") != std::string::npos ||
                         conductors_[layer].find("_PWR") != std::string::npos;
      static constexpr std::string_view kPadTypes[] = {"REGULAR", "THERMAL", "ANTI"};
      const int kinds = padstack.drill > 0 && plane ? 3 : 1;
      for (int kind = 0; kind < kinds; ++kind) {
        const std::int64_t grow = kind == 0 ? 0 : 100 * kUm;
        t.set(F::PAD_STACK_NAME, padstack.name)
            .set(F::PAD_STACK_TYPE, padstack.type)
            .set(F::PAD_STACK_PLATED, padstack.drill > 0 ? "YES" : "NO")
            .set(F::LAYER_NAME, conductors_[layer])
            .set(F::PAD_TYPE, kPadTypes[kind])
            .set(F::PAD_SHAPE_NAME, kind == 0 ? padstack.shape : "CIRCLE")
            .set(F::PAD_FIGURE, kind == 0 ? padstack.figure : "CIRCLE")
            .fixed(F::PAD_WIDTH, padstack.width + grow, kCoordDecimals)
            .fixed(F::PAD_HEIGHT, padstack.height + grow, kCoordDecimals)
            .fixed(F::PAD_OFFSET_X, 0, kCoordDecimals)
            .fixed(F::PAD_OFFSET_Y, 0, kCoordDecimals)
            .set(F::START_LAYER_NAME, conductors_[start])
            .set(F::END_LAYER_NAME, conductors_[end]);
        if (padstack.drill > 0) {
          t.set(F::DRILL_HOLE_NAME, padstack.drill >= 100 * kUm ? "DRILL_100" : "DRILL_50")
              .set(F::DRILL_FIGURE_SHAPE, "CIRCLE");
          t.fixed(F::DRILL_FIGURE_WIDTH, padstack.drill, kCoordDecimals)
              .fixed(F::DRILL_FIGURE_HEIGHT, padstack.drill, kCoordDecimals);
        }
        t.next();
      }
    }
  }
  endTable(t);
}

void Generator::writeDieStacks() {
  TableWriter t(TableFor("DIE_STACK_DEF"), out_);
  t.set(F::DIE_STACK_NAME, "STACK_1")
      .set(F::REFDES, "U1")
      .integer(F::DIE_ORDER, 1)
      .set(F::DIE_ORIENTATION, "CHIP_DOWN")
      .set(F::DIE_ATTACH_METHOD, "FLIPCHIP")
      .set(F::DIE_THICKNESS, "150.00 um")
      .fixed(F::DIE_STACK_X, 0, kCoordDecimals)
      .fixed(F::DIE_STACK_Y, 0, kCoordDecimals);
  t.next();
  t.set(F::DIE_STACK_NAME, "STACK_1")
      .set(F::REFDES, "U2")
      .integer(F::DIE_ORDER, 2)
      .set(F::DIE_ORIENTATION, "CHIP_UP")
      .set(F::DIE_ATTACH_METHOD, "WIREBOND")
      .set(F::DIE_THICKNESS, "100.00 um")
      .set(F::SPACER_THICKNESS, "50.00 um")
      .set(F::SPACER_MATERIAL, "SILICON")
      .fixed(F::DIE_STACK_X, 0, kCoordDecimals)
      .fixed(F::DIE_STACK_Y, 0, kCoordDecimals);
  t.next();
  endTable(t);
}

void Generator::writeNets() {
  TableWriter t(TableFor("NET"), out_);
  for (const Net& net : nets_) {
    t.set(F::NET_NAME, net.name)
        .set(F::NET_BUS_NAME, net.bus)
        .set(F::NET_DIFFERENTIAL_PAIR, net.pair)
        .set(F::NET_PHYSICAL_TYPE, net.type)
        .set(F::NET_VOLTAGE, net.voltage);
    t.next();
  }
  endTable(t);
}

void Generator::writeComponents() {
  TableWriter t(TableFor("COMPONENT"), out_);
  for (const Component& c : components_) {
    t.set(F::REFDES_SORT, c.sort)
        .set(F::REFDES, c.refdes)
        .set(F::COMP_CLASS, c.compClass)
        .set(F::COMP_DEVICE_TYPE, c.deviceType)
        .set(F::COMP_VALUE, c.value)
        .set(F::COMP_TOL, c.tolerance)
        .set(F::COMP_PACKAGE, c.package)
        .set(F::COMP_PART_NUMBER, c.partNumber)
        .fixed(F::SYM_X, c.x, kCoordDecimals)
        .fixed(F::SYM_Y, c.y, kCoordDecimals)
        .fixed(F::SYM_ROTATE, c.rotation, 3)
        .set(F::SYM_MIRROR, c.mirror ? "YES" : "NO")
        .fixed(F::SYM_BOX_X1, c.x - c.halfWidth, kCoordDecimals)
        .fixed(F::SYM_BOX_Y1, c.y - c.halfHeight, kCoordDecimals)
        .fixed(F::SYM_BOX_X2, c.x + c.halfWidth, kCoordDecimals)
        .fixed(F::SYM_BOX_Y2, c.y + c.halfHeight, kCoordDecimals)
        .set(F::SYM_NAME, c.symName)
        .integer(F::COMP_PIN_COUNT, c.pinCount);
    t.next();
  }
  endTable(t);
}

void Generator::writeLogicalPins() {
  TableWriter t(TableFor("LOGICAL_PIN"), out_);
  for (const Pin& pin : pins_) {
    const Component& c = components_[pin.component];
    const Net& net = nets_[pin.net];
    const std::string funcDes = c.refdes + "." + pin.number;
    t.set(F::REFDES_SORT, c.sort)
        .set(F::REFDES, c.refdes)
        .set(F::FUNC_DES, funcDes)
        .set(F::PIN_NUMBER, pin.number)
        .set(F::PIN_PINUSE, net.type == "GROUND"  ? "GROUND"
                            : net.type == "POWER" ? "POWER"
                                                  : c.pinUse)
        .set(F::NET_NAME, net.name);
    t.next();
  }
  endTable(t);
}

void Generator::writeCompositePads() {
  TableWriter t(TableFor("COMPOSITE_PAD"), out_);
  const std::uint64_t count = std::clamp<std::uint64_t>(options_.connRecords / 250, 40, 20000);
  const std::string& top = conductors_.front();
  const std::string& bottom = conductors_.back();
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint32_t net = pickNet();
    const std::int64_t x = coord(), y = coord();
    const unsigned kind = static_cast<unsigned>(rng_.below(20));
    const bool array = kind < 4;
    const bool backTop = kind == 4 || kind == 5 || kind == 8;
    const bool backBottom = kind == 6 || kind == 7 || kind == 8;
    const Padstack& padstack = padstacks_[array ? kViaArray : kCoreVia];
    t.set(F::PAD_STACK_NAME, padstack.name)
        .set(F::GRAPHIC_DATA_NAME, array ? "DRILL_ARRAY" : "PAD")
        .set(F::START_LAYER_NAME, top)
        .set(F::END_LAYER_NAME, bottom)
        .set(F::NET_NAME, net == UINT32_MAX ? std::string_view() : nets_[net].name)
        .set(F::DRILL_HOLE_NAME, array ? "DRILL_100_ARRAY" : "DRILL_100");
    if (array) {
      const std::int64_t rows = 2 + static_cast<std::int64_t>(rng_.below(3));
      const std::int64_t columns = 2 + static_cast<std::int64_t>(rng_.below(3));
      t.integer(F::DRILL_ARRAY_ROWS, rows).integer(F::DRILL_ARRAY_COLUMNS, columns);
    }
    if (backTop || backBottom) t.fixed(F::BACKDRILL_SIZE, 200 * kUm, kCoordDecimals);
    if (backTop)
      t.set(F::BACKDRILL_TOP_LAYER, conductors_[std::min<std::size_t>(2, conductors_.size() - 1)]);
    if (backBottom)
      t.set(F::BACKDRILL_BOTTOM_LAYER,
            conductors_[conductors_.size() >= 3 ? conductors_.size() - 3 : 0]);
    if (i % 3 == 0) {
      t.fixed(F::PIN_X, x, kCoordDecimals)
          .fixed(F::PIN_Y, y, kCoordDecimals)
          .fixed(F::PIN_ROTATION_ABSOLUTE, 0, 3);
    } else {
      t.fixed(F::VIA_X, x, kCoordDecimals)
          .fixed(F::VIA_Y, y, kCoordDecimals)
          .fixed(F::VIA_ROTATION, 0, 3);
    }
    t.next();
  }
  endTable(t);
}

void Generator::writeOutlines() {
  TableWriter t(TableFor("GEOMETRY"), out_);
  const auto line = [&](std::string_view cls, std::string_view subclass, std::int64_t number,
                        std::int64_t x1, std::int64_t y1, std::int64_t x2, std::int64_t y2,
                        std::string_view refdes = {}) {
    t.set(F::CLASS, cls)
        .set(F::SUBCLASS, subclass)
        .numbers(F::RECORD_TAG, {static_cast<std::int64_t>(recordTag_++), number, 0})
        .set(F::GRAPHIC_DATA_NAME, "LINE")
        .integer(F::GRAPHIC_DATA_NUMBER, number)
        .fixed(F::GRAPHIC_DATA_1, x1, kCoordDecimals)
        .fixed(F::GRAPHIC_DATA_2, y1, kCoordDecimals)
        .fixed(F::GRAPHIC_DATA_3, x2, kCoordDecimals)
        .fixed(F::GRAPHIC_DATA_4, y2, kCoordDecimals)
        .fixed(F::GRAPHIC_DATA_5, 0, kCoordDecimals)
        .set(F::REFDES, refdes);
    t.next();
  };
  const auto rectangle = [&](std::string_view cls, std::string_view subclass, std::int64_t x1,
                             std::int64_t y1, std::int64_t x2, std::int64_t y2,
                             std::string_view refdes = {}) {
    line(cls, subclass, 1, x1, y1, x2, y1, refdes);
    line(cls, subclass, 2, x2, y1, x2, y2, refdes);
    line(cls, subclass, 3, x2, y2, x1, y2, refdes);
    line(cls, subclass, 4, x1, y2, x1, y1, refdes);
  };
  const std::int64_t e = extent_;
  rectangle("BOARD GEOMETRY", "OUTLINE", -e, -e, e, e);
  // The substrate outline has rounded corners: four lines and four arcs.
  const std::int64_t inset = e - 200 * kUm, radius = 300 * kUm;
  line("SUBSTRATE GEOMETRY", "OUTLINE", 1, -inset + radius, -inset, inset - radius, -inset);
  line("SUBSTRATE GEOMETRY", "OUTLINE", 2, inset, -inset + radius, inset, inset - radius);
  line("SUBSTRATE GEOMETRY", "OUTLINE", 3, inset - radius, inset, -inset + radius, inset);
  line("SUBSTRATE GEOMETRY", "OUTLINE", 4, -inset, inset - radius, -inset, -inset + radius);
  for (int corner = 0; corner < 4; ++corner) {
    const std::int64_t sx = corner == 1 || corner == 2 ? 1 : -1;
    const std::int64_t sy = corner >= 2 ? 1 : -1;
    const std::int64_t cx = sx * (inset - radius), cy = sy * (inset - radius);
    t.set(F::CLASS, "SUBSTRATE GEOMETRY")
        .set(F::SUBCLASS, "OUTLINE")
        .numbers(F::RECORD_TAG, {static_cast<std::int64_t>(recordTag_++), 5 + corner, 0})
        .set(F::GRAPHIC_DATA_NAME, "ARC")
        .integer(F::GRAPHIC_DATA_NUMBER, 5 + corner)
        .fixed(F::GRAPHIC_DATA_1, cx + sx * radius, kCoordDecimals)
        .fixed(F::GRAPHIC_DATA_2, cy, kCoordDecimals)
        .fixed(F::GRAPHIC_DATA_3, cx, kCoordDecimals)
        .fixed(F::GRAPHIC_DATA_4, cy + sy * radius, kCoordDecimals)
        .fixed(F::GRAPHIC_DATA_5, cx, kCoordDecimals)
        .fixed(F::GRAPHIC_DATA_6, cy, kCoordDecimals)
        .fixed(F::GRAPHIC_DATA_7, radius, kCoordDecimals)
        .fixed(F::GRAPHIC_DATA_8, 0, kCoordDecimals)
        .set(F::GRAPHIC_DATA_9, "COUNTERCLOCKWISE");
    t.next();
  }
  // Geometry that the outline view leaves out: other subclasses of the
  // outline classes, and outlines of other classes.
  line("BOARD GEOMETRY", "DIMENSION", 1, -e, -e - 500 * kUm, e, -e - 500 * kUm);
  line("BOARD GEOMETRY", "DIMENSION", 2, e + 500 * kUm, -e, e + 500 * kUm, e);
  rectangle("SUBSTRATE GEOMETRY", "SOLDERMASK_TOP", -inset, -inset, inset, inset);
  const std::size_t outlined = std::min<std::size_t>(components_.size(), 50);
  for (std::size_t i = 0; i < outlined; ++i) {
    const Component& c = components_[i];
    rectangle("PACKAGE GEOMETRY", i % 2 ? "ASSEMBLY_TOP" : "OUTLINE", c.x - c.halfWidth,
              c.y - c.halfHeight, c.x + c.halfWidth, c.y + c.halfHeight, c.refdes);
  }
  endTable(t);
}

}  // namespace make_design
