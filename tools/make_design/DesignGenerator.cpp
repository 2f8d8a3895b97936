#include "tools/make_design/DesignGenerator.h"

#include <ctime>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string_view>

#include "tools/common/Platform.h"
#include "tools/make_design/DesignSchema.h"
#include "tools/make_design/TableWriter.h"

namespace make_design {

namespace {

using F = Field;

// Coordinates and sizes are kept in hundredths of a micrometre, the design's
// accuracy, and written with two decimals.
constexpr std::int64_t kUm = 100;
constexpr int kCoordDecimals = 2;

// xoshiro256** seeded through splitmix64: small, fast, and the same sequence
// on every platform (the standard distributions are not).
class Rng {
 public:
  explicit Rng(std::uint64_t seed) {
    for (std::uint64_t& word : state_) {
      seed += 0x9E3779B97F4A7C15ull;
      std::uint64_t z = seed;
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
      word = z ^ (z >> 31);
    }
  }
  std::uint64_t next() {
    const std::uint64_t result = Rotl(state_[1] * 5, 7) * 9;
    const std::uint64_t t = state_[1] << 17;
    state_[2] ^= state_[0];
    state_[3] ^= state_[1];
    state_[1] ^= state_[2];
    state_[0] ^= state_[3];
    state_[2] ^= t;
    state_[3] = Rotl(state_[3], 45);
    return result;
  }
  // Uniform in [0, n); n > 0.
  std::uint64_t below(std::uint64_t n) {
    return static_cast<std::uint64_t>((static_cast<unsigned __int128>(next()) * n) >> 64);
  }
  std::int64_t between(std::int64_t low, std::int64_t high) {
    return low + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(high - low) + 1));
  }
  bool percent(unsigned p) { return below(100) < p; }

 private:
  static std::uint64_t Rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
  std::array<std::uint64_t, 4> state_;
};

struct Weighted {
  std::string_view name;
  unsigned weight;
};

std::string_view Pick(Rng& rng, const std::vector<Weighted>& choices) {
  unsigned total = 0;
  for (const Weighted& choice : choices) total += choice.weight;
  std::uint64_t roll = rng.below(total);
  for (const Weighted& choice : choices) {
    if (roll < choice.weight) return choice.name;
    roll -= choice.weight;
  }
  return choices.back().name;
}

std::string Padded(std::uint64_t value, std::size_t width) {
  std::string text = std::to_string(value);
  if (text.size() < width) text.insert(0, width - text.size(), '0');
  return text;
}

// Ball rows are lettered without I, O, Q, S, X and Z: A..Y, then AA, AB, ...
std::string BallRow(std::uint64_t row) {
  static constexpr std::string_view kLetters = "ABCDEFGHJKLMNPRTUVWY";
  std::string name;
  std::uint64_t n = row + 1;
  while (n > 0) {
    --n;
    name.insert(name.begin(), kLetters[n % kLetters.size()]);
    n /= kLetters.size();
  }
  return name;
}

struct PowerNet {
  const char* name;
  unsigned perMille;  // share of the connectivity records
  const char* type;
  const char* voltage;
};

// Largest first. The fourth and fifth tie, and the byte-wise greater name
// comes first, which is how they rank among equals. The one name with a
// blank is sixth, so the four largest nets keep plain names.
constexpr PowerNet kPowerNets[] = {
    {"GND", 280, "GROUND", "0V"},    {"VDD_CORE", 140, "POWER", "0.8V"},
    {"VDDIO", 80, "POWER", "1.2V"},  {"VDD_PLL", 50, "POWER", "0.9V"},
    {"VDDA", 50, "POWER", "1.8V"},   {"VDD 1V8", 30, "POWER", "1.8V"},
    {"VSS_ANA", 20, "GROUND", "0V"}, {"VREF", 10, "POWER", "0.6V"},
};
constexpr std::size_t kPowerCount = sizeof kPowerNets / sizeof kPowerNets[0];
constexpr unsigned kEmptyNetPerMille = 4;

// Bumps and balls per power net, largest nets first.
std::array<std::uint64_t, kPowerCount> PowerPinCounts(std::uint64_t netCount) {
  return {netCount / 8 + 4,
          netCount / 16 + 3,
          netCount / 24 + 2,
          netCount / 64 + 2,
          netCount / 64 + 2,
          netCount / 80 + 2,
          2,
          2};
}

struct Layer {
  std::string name;
  std::string_view type;
  bool conductor = false;
  std::string_view material;
  std::int64_t thickness = 0;  // hundredths of a micrometre
  std::string thicknessText;
};

struct Padstack {
  std::string_view name;
  std::string_view type;
  std::string_view shape;   // the pad shape name the geometry carries
  std::string_view figure;  // the figure the pad definition names
  std::int64_t width = 0;
  std::int64_t height = 0;
  int startLayer = 0;  // conductor indices; -1 stands for the bottom layer
  int endLayer = 0;
  std::int64_t drill = 0;  // 0: no drill
};

enum PadstackId {
  kBump,
  kBgaLand,
  kCoreVia,
  kMicroVia,
  kCapPad,
  kResPad,
  kBondFinger,
  kTestPad,
  kFiducial,
  kViaArray,
};

struct Component {
  std::string refdes;
  std::string sort;
  std::string_view compClass;
  std::string deviceType;
  std::string value;
  std::string tolerance;
  std::string package;
  std::string partNumber;
  std::string symName;
  std::string_view pinType;
  std::string_view pinUse;  // for pins that are not power or ground
  std::string_view side;    // "TOP" or "BOTTOM"
  PadstackId padstack = kBump;
  std::int64_t x = 0, y = 0, halfWidth = 0, halfHeight = 0;
  std::int64_t rotation = 0;  // thousandths of a degree
  bool mirror = false;
  std::uint32_t firstPin = 0, pinCount = 0;
};

struct Pin {
  std::uint32_t component = 0;
  std::string number;
  std::int64_t x = 0, y = 0;
  std::uint32_t net = 0;
};

struct Net {
  std::string name;
  std::string sort;
  std::string bus;
  std::string pair;
  std::string_view type;
  std::string_view voltage;
  std::uint64_t records = 0;
  std::vector<std::uint32_t> pins;
};

class Generator {
 public:
  Generator(const DesignOptions& options, veltools::FileWriter& out)
      : options_(options), out_(out), rng_(options.seed) {}

  DesignSummary run();

 private:
  void planLayers();
  void planPadstacks();
  void planNets();
  void planComponents();
  void assignPins();

  void writeJob();
  void writeLayers();
  void writePadDefinitions();
  void writeDieStacks();
  void writeNets();
  void writeComponents();
  void writeLogicalPins();
  void writeCompositePads();
  void writeOutlines();
  void writeFullGeometry();
  void writeConnectivity();

  // Shared by the connectivity and full geometry tables: the fields of one
  // net item of the given class. Fields the table lacks are left out.
  void fillItem(TableWriter& t, std::string_view itemClass, std::uint32_t net, std::uint64_t node);
  void fillPin(TableWriter& t, std::uint32_t net, std::uint64_t node);
  void fillVia(TableWriter& t, std::int64_t x, std::int64_t y);
  void fillSegment(TableWriter& t, std::int64_t x, std::int64_t y);
  void fillPadstack(TableWriter& t, const Padstack& padstack);
  std::uint32_t pickNet();
  std::int64_t coord() { return rng_.between(-extent_, extent_); }
  const std::string& layerName(int conductorIndex) const;
  const std::string& randomConductor() { return conductors_[rng_.below(conductors_.size())]; }
  void endTable(TableWriter& t) {
    t.finish();
    summary_.tableRecords.emplace_back(std::string(t.keyword()), t.records());
  }

  const DesignOptions& options_;
  veltools::FileWriter& out_;
  Rng rng_;
  DesignSummary summary_;

  std::vector<Layer> stack_;
  std::vector<std::string> conductors_;
  std::vector<Padstack> padstacks_;
  std::vector<Net> nets_;  // power nets first, then signal nets
  std::uint64_t emptyNetRecords_ = 0;
  std::vector<std::uint64_t> netPrefix_;  // running record totals, for weighted picks
  std::vector<Component> components_;
  std::vector<Pin> pins_;
  std::int64_t extent_ = 0;  // half the package's width
  std::uint64_t recordTag_ = 1000;
};

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

DesignSummary Generator::run() {
  if (options_.conductorLayers < 2 || options_.conductorLayers > 64) {
    throw std::invalid_argument("the layer count must be between 2 and 64");
  }
  if (options_.nets != 0 && options_.nets < kPowerCount) {
    throw std::invalid_argument("a design has at least " + std::to_string(kPowerCount) + " nets");
  }
  planLayers();
  planPadstacks();
  planNets();
  planComponents();
  writeJob();
  writeLayers();
  writePadDefinitions();
  writeDieStacks();
  writeNets();
  writeComponents();
  writeLogicalPins();
  writeCompositePads();
  writeOutlines();
  writeFullGeometry();
  writeConnectivity();
  summary_.nets = nets_.size();
  return summary_;
}

}  // namespace

const std::vector<std::string>& PowerNetNames() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> list;
    for (const PowerNet& net : kPowerNets) list.emplace_back(net.name);
    return list;
  }();
  return names;
}

DesignSummary WriteDesign(const DesignOptions& options, veltools::FileWriter& out) {
  return Generator(options, out).run();
}

}  // namespace make_design
