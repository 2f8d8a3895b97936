// The two large tables made of net items, full geometry and connectivity,
// and the fields their items share.

#include "tools/make_design/Generator.h"

#include <algorithm>

namespace make_design {

std::uint32_t Generator::pickNet() {
  // Weighted by connectivity records, so large nets own most of the geometry
  // too; UINT32_MAX stands for the unnamed net.
  const std::uint64_t total = netPrefix_.empty() ? 0 : netPrefix_.back();
  if (total == 0) return static_cast<std::uint32_t>(rng_.below(nets_.size()));
  const std::uint64_t roll = rng_.below(total);
  if (roll < emptyNetRecords_) return UINT32_MAX;
  return static_cast<std::uint32_t>(std::upper_bound(netPrefix_.begin(), netPrefix_.end(), roll) -
                                    netPrefix_.begin());
}

void Generator::fillPadstack(TableWriter& t, const Padstack& padstack) {
  t.set(F::PAD_STACK_NAME, padstack.name)
      .set(F::START_LAYER_NAME, layerName(padstack.startLayer))
      .set(F::END_LAYER_NAME, layerName(padstack.endLayer));
  if (t.has(F::PAD_SHAPE_NAME)) t.set(F::PAD_SHAPE_NAME, padstack.shape);
}

void Generator::fillSegment(TableWriter& t, std::int64_t x, std::int64_t y) {
  const std::int64_t length = rng_.between(50, 2000) * kUm;
  const bool horizontal = rng_.percent(50);
  t.fixed(F::GRAPHIC_DATA_1, x, kCoordDecimals)
      .fixed(F::GRAPHIC_DATA_2, y, kCoordDecimals)
      .fixed(F::GRAPHIC_DATA_3, horizontal ? x + length : x, kCoordDecimals)
      .fixed(F::GRAPHIC_DATA_4, horizontal ? y : y + length, kCoordDecimals);
}

void Generator::fillVia(TableWriter& t, std::int64_t x, std::int64_t y) {
  const Padstack& via = padstacks_[rng_.percent(70) ? kCoreVia : kMicroVia];
  fillPadstack(t, via);
  t.fixed(F::VIA_X, x, kCoordDecimals)
      .fixed(F::VIA_Y, y, kCoordDecimals)
      .set(F::VIA_MIRROR, "NO")
      .fixed(F::VIA_ROTATION, 0, 3);
  if (t.has(F::DRILL_HOLE_X)) {
    t.fixed(F::DRILL_HOLE_X, x, kCoordDecimals)
        .fixed(F::DRILL_HOLE_Y, y, kCoordDecimals)
        .set(F::DRILL_FIGURE_SHAPE, "CIRCLE")
        .fixed(F::DRILL_FIGURE_WIDTH, via.drill, kCoordDecimals)
        .fixed(F::DRILL_FIGURE_HEIGHT, via.drill, kCoordDecimals)
        .fixed(F::DRILL_FIGURE_ROTATION, 0, 3);
  }
}

void Generator::fillPin(TableWriter& t, std::uint32_t net, std::uint64_t node) {
  const std::vector<std::uint32_t>& pins = nets_[net].pins;
  const Pin& pin = pins_[pins[node % pins.size()]];
  const Component& c = components_[pin.component];
  // Now and then a pin is probed through a test pad instead of its own pad.
  const bool testPad = t.has(F::PAD_SHAPE_NAME) && rng_.percent(10);
  fillPadstack(t, padstacks_[testPad ? kTestPad : c.padstack]);
  t.set(F::SUBCLASS, c.side)
      .set(F::REFDES, c.refdes)
      .set(F::PIN_NUMBER, pin.number)
      .set(F::PIN_TYPE, c.pinType)
      .fixed(F::PIN_X, pin.x, kCoordDecimals)
      .fixed(F::PIN_Y, pin.y, kCoordDecimals)
      .fixed(F::PIN_ROTATION_ABSOLUTE, c.rotation, 3)
      .set(F::SYM_MIRROR, c.mirror ? "YES" : "NO")
      .fixed(F::SYM_ROTATE, c.rotation, 3)
      .set(F::BOND_PAD, c.pinType == "WIREBOND" ? "YES" : "NO");
  if (t.has(F::PIN_ROTATION)) t.fixed(F::PIN_ROTATION, 0, 3);
  if (t.has(F::COMP_CLASS)) t.set(F::COMP_CLASS, c.compClass).set(F::SYM_NAME, c.symName);
}

void Generator::fillItem(TableWriter& t, std::string_view itemClass, std::uint32_t net,
                         std::uint64_t node) {
  const std::int64_t x = coord(), y = coord();
  if (itemClass == "PIN") {
    fillPin(t, net, node);
  } else if (itemClass == "VIA CLASS") {
    fillVia(t, x, y);
  } else if (itemClass == "BONDING WIRE") {
    const Component& stacked = components_[2];
    const Pin& pad = pins_[stacked.firstPin + node % stacked.pinCount];
    t.set(F::SUBCLASS, "WIREBOND")
        .set(F::GRAPHIC_DATA_NAME, "LINE")
        .set(F::REFDES, stacked.refdes)
        .set(F::PIN_NUMBER, pad.number)
        .set(F::BOND_PAD, "YES");
    fillSegment(t, pad.x, pad.y);
    t.fixed(F::GRAPHIC_DATA_5, 25 * kUm, kCoordDecimals);
    if (t.has(F::WIREBOND_MATERIAL)) {
      t.set(F::WIREBOND_PROFILE_NAME, node % 3 ? "JEDEC4_25UM" : "LOW_LOOP_20UM")
          .set(F::WIREBOND_MATERIAL, node % 5 ? "GOLD" : "COPPER");
    }
  } else if (itemClass == "CONDUCTOR") {
    t.set(F::SUBCLASS, randomConductor()).set(F::GRAPHIC_DATA_NAME, "SHAPE");
    fillSegment(t, x, y);
    t.set(F::GRAPHIC_DATA_5, "FILLED");
  } else {
    // Traces and the other line-based classes: a line or an arc on a layer.
    t.set(F::SUBCLASS, itemClass == "DRC ERROR CLASS" ? std::string_view("LINE TO LINE SPACING")
                                                      : std::string_view(randomConductor()));
    const std::int64_t width = rng_.between(15, 60) * kUm;
    if (rng_.percent(80)) {
      t.set(F::GRAPHIC_DATA_NAME, "LINE");
      fillSegment(t, x, y);
      t.fixed(F::GRAPHIC_DATA_5, width, kCoordDecimals);
    } else {
      const std::int64_t radius = rng_.between(50, 500) * kUm;
      t.set(F::GRAPHIC_DATA_NAME, "ARC")
          .fixed(F::GRAPHIC_DATA_1, x + radius, kCoordDecimals)
          .fixed(F::GRAPHIC_DATA_2, y, kCoordDecimals)
          .fixed(F::GRAPHIC_DATA_3, x, kCoordDecimals)
          .fixed(F::GRAPHIC_DATA_4, y + radius, kCoordDecimals)
          .fixed(F::GRAPHIC_DATA_5, x, kCoordDecimals)
          .fixed(F::GRAPHIC_DATA_6, y, kCoordDecimals)
          .fixed(F::GRAPHIC_DATA_7, radius, kCoordDecimals)
          .fixed(F::GRAPHIC_DATA_8, width, kCoordDecimals)
          .set(F::GRAPHIC_DATA_9, rng_.percent(50) ? "CLOCKWISE" : "COUNTERCLOCKWISE");
    }
  }
}

void Generator::writeFullGeometry() {
  TableWriter t(TableFor("FULL_GEOMETRY"), out_);
  static const std::vector<Weighted> kClasses = {
      {"ETCH", 28},
      {"PIN", 18},
      {"VIA CLASS", 14},
      {"CONDUCTOR", 8},
      {"BONDING WIRE", 3},
      {"ANTI ETCH", 3},
      {"PACKAGE GEOMETRY", 5},
      {"REF DES", 3},
      {"BOARD GEOMETRY", 2},
      {"COMPONENT VALUE", 2},
      {"DEVICE TYPE", 2},
      {"MANUFACTURING", 3},
      {"DRC ERROR CLASS", 2},
      {"SUBSTRATE GEOMETRY", 3},
      {"PACKAGE KEEPIN", 1},
      {"ROUTE KEEPOUT", 1},
      {"VIA KEEPOUT", 1},
      {"TOLERANCE", 1},
  };
  static const std::vector<std::string_view> kNetClasses = {
      "ETCH", "PIN", "VIA CLASS", "CONDUCTOR", "BONDING WIRE", "ANTI ETCH", "DRC ERROR CLASS"};
  const std::uint64_t count = options_.geoRecords
                                  ? *options_.geoRecords
                                  : std::max<std::uint64_t>(options_.connRecords / 4, 100);
  for (std::uint64_t i = 0; i < count; ++i) {
    std::string_view itemClass = Pick(rng_, kClasses);
    const bool netted =
        std::find(kNetClasses.begin(), kNetClasses.end(), itemClass) != kNetClasses.end();
    std::uint32_t net = netted ? pickNet() : UINT32_MAX;
    if (itemClass == "PIN" && (net == UINT32_MAX || nets_[net].pins.empty())) itemClass = "ETCH";
    t.set(F::CLASS, itemClass)
        .numbers(F::RECORD_TAG, {static_cast<std::int64_t>(recordTag_++), 1, 0})
        .integer(F::GRAPHIC_DATA_NUMBER, static_cast<std::int64_t>(i % 16 + 1));
    if (net != UINT32_MAX)
      t.set(F::NET_NAME_SORT, nets_[net].sort).set(F::NET_NAME, nets_[net].name);
    if (netted) {
      fillItem(t, itemClass, net, i);
      const unsigned rat = static_cast<unsigned>(rng_.below(100));
      if (rat < 2) t.set(F::RAT_CONNECTED, rat == 0 ? "YES" : "NO");
    } else {
      // Drawing and documentation classes: text or lines on a class subclass.
      t.set(F::SUBCLASS, i % 2 ? "ASSEMBLY_TOP" : "SILKSCREEN_TOP");
      if (itemClass == "REF DES" || itemClass == "COMPONENT VALUE" || itemClass == "DEVICE TYPE") {
        const Component& c = components_[i % components_.size()];
        t.set(F::GRAPHIC_DATA_NAME, "TEXT")
            .fixed(F::GRAPHIC_DATA_1, c.x, kCoordDecimals)
            .fixed(F::GRAPHIC_DATA_2, c.y, kCoordDecimals)
            .set(F::GRAPHIC_DATA_3, itemClass == "REF DES" ? std::string_view(c.refdes)
                                    : itemClass == "COMPONENT VALUE"
                                        ? std::string_view(c.value)
                                        : std::string_view(c.deviceType))
            .set(F::REFDES, c.refdes);
      } else {
        t.set(F::GRAPHIC_DATA_NAME, "LINE");
        fillSegment(t, coord(), coord());
        t.fixed(F::GRAPHIC_DATA_5, 10 * kUm, kCoordDecimals);
      }
    }
    t.next();
  }
  endTable(t);
}

void Generator::writeConnectivity() {
  TableWriter t(TableFor("CONNECTIVITY"), out_);
  static const std::vector<Weighted> kPowerClasses = {
      {"CONDUCTOR", 22},   {"VIA CLASS", 30}, {"PIN", 20},     {"ETCH", 14},
      {"BONDING WIRE", 3}, {"ANTI ETCH", 5},  {"BOUNDARY", 4}, {"DRC ERROR CLASS", 2}};
  static const std::vector<Weighted> kSignalClasses = {
      {"ETCH", 46},        {"VIA CLASS", 20}, {"PIN", 16},     {"CONDUCTOR", 4},
      {"BONDING WIRE", 5}, {"ANTI ETCH", 3},  {"BOUNDARY", 3}, {"DRC ERROR CLASS", 3}};
  // Copper that belongs to no net: dummy fill and stray shapes.
  static const std::vector<Weighted> kUnnamedClasses = {
      {"CONDUCTOR", 50}, {"ETCH", 30}, {"BOUNDARY", 20}};

  // Records come grouped by net in net order, the unnamed ones first.
  for (std::int64_t group = -1; group < static_cast<std::int64_t>(nets_.size()); ++group) {
    const bool unnamed = group < 0;
    const std::uint32_t net = unnamed ? UINT32_MAX : static_cast<std::uint32_t>(group);
    const std::uint64_t count = unnamed ? emptyNetRecords_ : nets_[net].records;
    const std::vector<Weighted>& classes = unnamed             ? kUnnamedClasses
                                           : net < kPowerCount ? kPowerClasses
                                                               : kSignalClasses;
    for (std::uint64_t node = 0; node < count; ++node) {
      std::string_view itemClass = Pick(rng_, classes);
      if (itemClass == "PIN" && nets_[net].pins.empty()) itemClass = "ETCH";
      t.set(F::CLASS, itemClass)
          .integer(F::NODE_SORT, static_cast<std::int64_t>(node + 1))
          .numbers(F::RECORD_TAG, {static_cast<std::int64_t>(recordTag_++),
                                   static_cast<std::int64_t>(node % 8 + 1), 0})
          .integer(F::GRAPHIC_DATA_NUMBER, static_cast<std::int64_t>(node % 16 + 1));
      if (!unnamed) t.set(F::NET_NAME_SORT, nets_[net].sort).set(F::NET_NAME, nets_[net].name);
      if (itemClass == "ETCH" || itemClass == "CONDUCTOR" || itemClass == "BONDING WIRE") {
        t.integer(F::NODE_1_NUMBER, static_cast<std::int64_t>(node + 1))
            .integer(F::NODE_2_NUMBER, static_cast<std::int64_t>(node + 2));
      }
      fillItem(t, itemClass, net, node);
      // Rats: unrouted connections, which the connectivity views leave out.
      const unsigned rat = static_cast<unsigned>(rng_.below(100));
      if (!unnamed && rat < 4) t.set(F::RAT_CONNECTED, rat < 2 ? "YES" : "NO");
      t.next();
    }
  }
  endTable(t);
}

}  // namespace make_design
