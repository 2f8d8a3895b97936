// The design planned before anything is written: layer stack-up, padstacks,
// nets with their record counts, components, and the pins joining them.

#include "tools/make_design/Generator.h"

#include <algorithm>

namespace make_design {

const std::string& Generator::layerName(int conductorIndex) const {
  return conductorIndex < 0 ? conductors_.back() : conductors_[conductorIndex];
}

void Generator::planLayers() {
  const int count = options_.conductorLayers;
  static constexpr std::string_view kInnerKinds[] = {"GND", "SIG", "PWR", "SIG"};
  for (int i = 0; i < count; ++i) {
    if (i == 0) {
      conductors_.push_back("TOP");
    } else if (i == count - 1) {
      conductors_.push_back("BOTTOM");
    } else {
      conductors_.push_back("L" + std::to_string(i + 1) + "_" +
                            std::string(kInnerKinds[(i - 1) % 4]));
    }
  }
  const auto add = [&](std::string name, std::string_view type, bool conductor,
                       std::string_view material, std::int64_t thickness) {
    Layer layer{std::move(name), type, conductor, material, thickness, {}};
    layer.thicknessText = std::to_string(thickness / kUm) + "." +
                          Padded(static_cast<std::uint64_t>(thickness % kUm), 2) + " um";
    stack_.push_back(std::move(layer));
  };
  add("SOLDERMASK_TOP", "MASK", false, "SOLDER_MASK", 20 * kUm);
  for (int i = 0; i < count; ++i) {
    const bool plane = conductors_[i].find("_GND") != std::string::npos ||
                       conductors_[i].find("_PWR") != std::string::npos;
    add(conductors_[i], plane ? "PLANE" : "CONDUCTOR", true, "COPPER",
        (15 + static_cast<std::int64_t>(rng_.below(4)) * 5) * kUm);
    if (i + 1 < count) {
      const bool core = i + 1 == count / 2;
      add(core ? "CORE" : "DIELECTRIC_" + std::to_string(i + 1), "DIELECTRIC", false,
          core ? "BT_CORE" : "ABF_GL102", (core ? 400 : 30) * kUm);
    }
  }
  add("SOLDERMASK_BOTTOM", "MASK", false, "SOLDER_MASK", 20 * kUm);
}

void Generator::planPadstacks() {
  // In PadstackId order.
  padstacks_ = {
      {"BUMP_80", "SMD", "CIRCLE", "CIRCLE", 80 * kUm, 80 * kUm, 0, 0, 0},
      {"BGA_LAND_400", "SMD", "SHP_BGA_LAND_400", "SHAPE", 250 * kUm, 250 * kUm, -1, -1, 0},
      {"VIA_100_250", "THROUGH", "SHP_OCT_250", "OCTAGON", 250 * kUm, 250 * kUm, 0, -1, 100 * kUm},
      {"UVIA_50_100", "BLIND", "CIRCLE", "CIRCLE", 100 * kUm, 100 * kUm, 0, 1, 50 * kUm},
      {"CAP_0402_PAD", "SMD", "FIG_RECTANGLE", "RECTANGLE", 500 * kUm, 550 * kUm, 0, 0, 0},
      {"RES_0201_PAD", "SMD", "SQUARE", "SQUARE", 300 * kUm, 300 * kUm, 0, 0, 0},
      {"BOND_FINGER_60X200", "SMD", "OBLONG_Y", "OBLONG", 60 * kUm, 200 * kUm, 0, 0, 0},
      {"TEST_PAD_300", "SMD", "OBLONG_X", "OBLONG", 300 * kUm, 150 * kUm, -1, -1, 0},
      {"FIDUCIAL_500", "SMD", "SHP_DONUT_500", "SHAPE", 500 * kUm, 500 * kUm, 0, 0, 0},
      {"VIA_ARRAY_2X2", "THROUGH", "SHP_VIA_ARRAY", "SHAPE", 600 * kUm, 600 * kUm, 0, -1,
       100 * kUm},
  };
}

namespace {

// Signal net names come in families, as a package's nets do; past the named
// families they are tool-generated "N$<number>" names.
std::string SignalName(std::uint64_t index, std::string& bus, std::string& pair) {
  struct Family {
    std::uint64_t count;
    const char* kind;
  };
  static constexpr Family kFamilies[] = {
      {64, "DDR_DQ"},  {8, "DDR_DQS"},  {8, "DDR_DQS_N"}, {4, "PCIE_TX"}, {4, "PCIE_TX_N"},
      {1, "USB2_D+"},  {1, "USB2_D-"},  {1, "I2C_SCL"},   {1, "I2C_SDA"}, {1, "RESET#"},
      {1, "JTAG TDI"}, {1, "SPI.MOSI"}, {1, "CLK_100M"},  {32, "GPIO"},
  };
  for (const Family& family : kFamilies) {
    if (index >= family.count) {
      index -= family.count;
      continue;
    }
    const std::string kind = family.kind;
    const std::string i = std::to_string(index);
    if (kind == "DDR_DQ") {
      bus = "DDR_DQ";
      return "DDR_DQ[" + i + "]";
    }
    if (kind == "DDR_DQS") {
      pair = "DQS_PAIR" + i;
      return "DDR_DQS_P[" + i + "]";
    }
    if (kind == "DDR_DQS_N") {
      pair = "DQS_PAIR" + i;
      return "DDR_DQS_N[" + i + "]";
    }
    if (kind == "PCIE_TX") {
      pair = "PCIE_TX" + i;
      return "PCIE_TX_P<" + i + ">";
    }
    if (kind == "PCIE_TX_N") {
      pair = "PCIE_TX" + i;
      return "PCIE_TX_N<" + i + ">";
    }
    if (kind == "USB2_D+" || kind == "USB2_D-") pair = "USB2";
    if (kind == "GPIO") {
      bus = "GPIO";
      return "GPIO_" + i;
    }
    return kind;
  }
  return "N$" + std::to_string(index + 1000);
}

}  // namespace

void Generator::planNets() {
  const std::uint64_t total = options_.connRecords;
  std::uint64_t netCount = options_.nets;
  if (netCount == 0) netCount = std::clamp<std::uint64_t>(total / 50, 100, 20000);

  for (const PowerNet& power : kPowerNets) {
    Net net;
    net.name = power.name;
    net.type = power.type;
    net.voltage = power.voltage;
    net.records = total * power.perMille / 1000;
    nets_.push_back(std::move(net));
  }
  // The fourth and fifth largest tie exactly.
  nets_[4].records = nets_[3].records;
  emptyNetRecords_ = total >= 20 ? std::max<std::uint64_t>(1, total * kEmptyNetPerMille / 1000) : 0;

  std::vector<std::uint64_t> weights;
  for (std::uint64_t i = 0; i + kPowerCount < netCount; ++i) {
    Net net;
    net.name = SignalName(i, net.bus, net.pair);
    net.type = "SIGNAL";
    nets_.push_back(std::move(net));
    // Most signal nets are short; a few (clocks, long buses) are long. Equal
    // weights give the many ties of record counts that real designs show.
    weights.push_back(rng_.percent(5) ? 20 + rng_.below(40) : 1 + rng_.below(8));
  }

  std::uint64_t assigned = emptyNetRecords_;
  for (const Net& net : nets_) assigned += net.records;
  const std::uint64_t remaining = total > assigned ? total - assigned : 0;
  std::uint64_t weightSum = 0;
  for (const std::uint64_t w : weights) weightSum += w;
  // Signal nets stay below the fifth largest net, so the largest five are
  // the power nets above whatever the draw.
  const std::uint64_t cap = nets_[4].records > 0 ? nets_[4].records - 1 : 0;
  std::uint64_t given = 0;
  for (std::size_t i = 0; i < weights.size(); ++i) {
    Net& net = nets_[kPowerCount + i];
    net.records = std::min(cap, remaining * weights[i] / weightSum);
    given += net.records;
  }
  for (std::size_t i = 0; i < weights.size() && given < remaining; ++i) {
    Net& net = nets_[kPowerCount + i];
    if (net.records < cap) {
      ++net.records;
      ++given;
    }
  }
  nets_[0].records += remaining - given;
  if (total < assigned) nets_[0].records -= std::min(nets_[0].records, assigned - total);

  for (std::size_t i = 0; i < nets_.size(); ++i) nets_[i].sort = Padded(i + 1, 6);
  std::uint64_t running = emptyNetRecords_;
  for (const Net& net : nets_) {
    running += net.records;
    netPrefix_.push_back(running);
  }
}

void Generator::planComponents() {
  const std::uint64_t signals = nets_.size() - kPowerCount;
  const std::uint64_t netCount = nets_.size();
  const auto powerPins = PowerPinCounts(netCount);
  std::uint64_t perPackage = signals;
  for (const std::uint64_t n : powerPins) perPackage += n;

  const auto addComponent = [&](Component component, std::uint64_t pinCount) {
    component.sort = Padded(components_.size() + 1, 5);
    component.firstPin = static_cast<std::uint32_t>(pins_.size());
    component.pinCount = static_cast<std::uint32_t>(pinCount);
    components_.push_back(std::move(component));
    pins_.resize(pins_.size() + pinCount);
    for (std::uint64_t i = 0; i < pinCount; ++i) {
      pins_[components_.back().firstPin + i].component =
          static_cast<std::uint32_t>(components_.size() - 1);
    }
    return components_.size() - 1;
  };

  // The flip-chip die: a square bump field at 150 um pitch in the middle.
  std::uint64_t bumpSide = 1;
  while (bumpSide * bumpSide < perPackage) ++bumpSide;
  const std::int64_t bumpPitch = 150 * kUm;
  Component die;
  die.refdes = "U1";
  die.compClass = "IC";
  die.deviceType = "ASIC_FC_A0";
  die.package = "DIE_FC_" + std::to_string(bumpSide) + "X" + std::to_string(bumpSide);
  die.partNumber = "A0-" + Padded(options_.seed % 10000, 4);
  die.symName = die.package;
  die.pinType = "BUMP";
  die.pinUse = "BI";
  die.side = "TOP";
  die.padstack = kBump;
  die.halfWidth = die.halfHeight = static_cast<std::int64_t>(bumpSide) * bumpPitch / 2 + 200 * kUm;
  const std::size_t dieIndex = addComponent(die, perPackage);
  for (std::uint64_t i = 0; i < perPackage; ++i) {
    Pin& pin = pins_[components_[dieIndex].firstPin + i];
    pin.number = std::to_string(i + 1);
    pin.x = (static_cast<std::int64_t>(i % bumpSide) - static_cast<std::int64_t>(bumpSide / 2)) *
            bumpPitch;
    pin.y = (static_cast<std::int64_t>(i / bumpSide) - static_cast<std::int64_t>(bumpSide / 2)) *
            bumpPitch;
  }

  // The BGA: balls at 400 um pitch under the whole package.
  const std::uint64_t ballSide = bumpSide;
  const std::int64_t ballPitch = 400 * kUm;
  extent_ = static_cast<std::int64_t>(ballSide) * ballPitch / 2 + 1000 * kUm;
  Component bga;
  bga.refdes = "BGA1";
  bga.compClass = "IO";
  bga.deviceType = "BGA_" + std::to_string(perPackage);
  bga.package = "BGA_" + std::to_string(ballSide) + "X" + std::to_string(ballSide) + "_P400";
  bga.partNumber = "PKG-" + Padded(options_.seed % 100000, 5);
  bga.symName = bga.package;
  bga.pinType = "BALL";
  bga.pinUse = "BI";
  bga.side = "BOTTOM";
  bga.mirror = true;
  bga.padstack = kBgaLand;
  bga.halfWidth = bga.halfHeight = extent_ - 500 * kUm;
  const std::size_t bgaIndex = addComponent(bga, perPackage);
  for (std::uint64_t i = 0; i < perPackage; ++i) {
    Pin& pin = pins_[components_[bgaIndex].firstPin + i];
    pin.number = BallRow(i / ballSide) + std::to_string(i % ballSide + 1);
    pin.x = (static_cast<std::int64_t>(i % ballSide) - static_cast<std::int64_t>(ballSide / 2)) *
            ballPitch;
    pin.y = (static_cast<std::int64_t>(i / ballSide) - static_cast<std::int64_t>(ballSide / 2)) *
            ballPitch;
  }

  // A wire-bonded die stacked on the flip-chip die, bond pads along its edge.
  Component stacked;
  stacked.refdes = "U2";
  stacked.compClass = "IC";
  stacked.deviceType = "MEM_WB_B1";
  stacked.package = "DIE_WB_32";
  stacked.partNumber = "B1-2048";
  stacked.symName = "DIE_WB_32";
  stacked.pinType = "WIREBOND";
  stacked.pinUse = "BI";
  stacked.side = "TOP";
  stacked.padstack = kBondFinger;
  stacked.halfWidth = stacked.halfHeight = die.halfWidth / 2;
  const std::size_t stackedIndex = addComponent(stacked, 32);
  for (std::uint64_t i = 0; i < 32; ++i) {
    Pin& pin = pins_[components_[stackedIndex].firstPin + i];
    pin.number = "W" + std::to_string(i + 1);
    pin.x = -stacked.halfWidth + static_cast<std::int64_t>(i) * 2 * stacked.halfWidth / 31;
    pin.y = (i % 2 ? 1 : -1) * stacked.halfHeight;
  }

  // Decoupling capacitors on a ring around the die, series resistors outside.
  const std::uint64_t caps = std::clamp<std::uint64_t>(netCount / 50, 4, 400);
  const std::uint64_t resistors = std::min<std::uint64_t>(signals / 25, 200);
  static constexpr std::string_view kCapValues[] = {"100nF", "1uF", "10nF", "4.7uF"};
  static constexpr std::string_view kResValues[] = {"22", "33", "0", "49.9"};
  for (std::uint64_t i = 0; i < caps + resistors; ++i) {
    const bool cap = i < caps;
    const std::uint64_t k = cap ? i : i - caps;
    const std::uint64_t ringCount = cap ? caps : resistors;
    Component part;
    part.refdes = (cap ? "C" : "R") + std::to_string(k + 1);
    part.compClass = "DISCRETE";
    const std::string_view value = cap ? kCapValues[k % 4] : kResValues[k % 4];
    part.value = std::string(value);
    part.deviceType = std::string(cap ? "CAP_0402_" : "RES_0201_") + part.value;
    part.tolerance = cap ? "10%" : "1%";
    part.package = cap ? "CAP_0402" : "RES_0201";
    part.partNumber = (cap ? "GRM155-" : "RC0201-") + part.value;
    part.symName = part.package;
    part.pinType = "SMD";
    part.pinUse = "UNSPEC";
    part.side = "TOP";
    part.padstack = cap ? kCapPad : kResPad;
    // Even spacing along the edges of a square ring.
    const std::int64_t ring = cap ? die.halfWidth + 1200 * kUm : die.halfWidth + 2400 * kUm;
    const std::int64_t perimeter = 8 * ring;
    const std::int64_t along = static_cast<std::int64_t>(k) * perimeter /
                               static_cast<std::int64_t>(std::max<std::uint64_t>(ringCount, 1));
    const std::int64_t edge = along / (2 * ring), offset = along % (2 * ring) - ring;
    part.x = edge == 0 ? offset : edge == 1 ? ring : edge == 2 ? -offset : -ring;
    part.y = edge == 0 ? -ring : edge == 1 ? offset : edge == 2 ? ring : -offset;
    part.rotation = (edge % 2) * 90000;
    part.halfWidth = (cap ? 500 : 300) * kUm;
    part.halfHeight = (cap ? 250 : 150) * kUm;
    const std::size_t index = addComponent(part, 2);
    for (std::uint64_t p = 0; p < 2; ++p) {
      Pin& pin = pins_[components_[index].firstPin + p];
      pin.number = std::to_string(p + 1);
      const std::int64_t shift = (p == 0 ? -1 : 1) * part.halfWidth / 2;
      pin.x = part.x + (edge % 2 ? 0 : shift);
      pin.y = part.y + (edge % 2 ? shift : 0);
    }
  }
  assignPins();
}

void Generator::assignPins() {
  const std::uint64_t signals = nets_.size() - kPowerCount;
  const std::uint64_t netCount = nets_.size();
  const auto powerPins = PowerPinCounts(netCount);
  std::vector<std::uint32_t> packageNets;  // the same for the die's bumps and the BGA's balls
  for (std::uint64_t s = 0; s < signals; ++s) {
    packageNets.push_back(static_cast<std::uint32_t>(kPowerCount + s));
  }
  for (std::size_t p = 0; p < kPowerCount; ++p) {
    packageNets.insert(packageNets.end(), powerPins[p], static_cast<std::uint32_t>(p));
  }
  // Spread power bumps through the field rather than leaving them in a corner.
  for (std::size_t i = packageNets.size(); i > 1; --i) {
    std::swap(packageNets[i - 1], packageNets[rng_.below(i)]);
  }
  for (const Component& component : components_) {
    for (std::uint32_t i = 0; i < component.pinCount; ++i) {
      Pin& pin = pins_[component.firstPin + i];
      std::uint32_t net = 0;
      if (component.pinType == "BUMP" || component.pinType == "BALL") {
        net = packageNets[i];
      } else if (component.pinType == "WIREBOND") {
        net = i % 4 == 0    ? 0
              : i % 4 == 1  ? 2
              : signals > 0 ? static_cast<std::uint32_t>(kPowerCount + (i / 2) % signals)
                            : 1;
      } else if (component.refdes[0] == 'C') {
        const std::uint32_t k = static_cast<std::uint32_t>(&component - components_.data());
        net = i == 0 ? 1 + k % (kPowerCount - 1) : 0;
      } else {
        const std::uint64_t k = static_cast<std::uint64_t>(&component - components_.data());
        net =
            static_cast<std::uint32_t>(kPowerCount + (k * 7) % std::max<std::uint64_t>(signals, 1));
      }
      pin.net = net;
      nets_[net].pins.push_back(component.firstPin + i);
    }
  }
}

}  // namespace make_design
