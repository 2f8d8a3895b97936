#pragma once
// The generator behind WriteDesign, shared by the files that hold its parts:
// the random sequence, the planned design (layers, padstacks, nets,
// components and their pins) and the class that plans it first and then
// writes it table by table (GeneratorPlanning.cpp, GeneratorTables.cpp,
// GeneratorNetItems.cpp).

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/make_design/DesignGenerator.h"
#include "tools/make_design/DesignSchema.h"
#include "tools/make_design/TableWriter.h"

namespace make_design {

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

inline std::string_view Pick(Rng& rng, const std::vector<Weighted>& choices) {
  unsigned total = 0;
  for (const Weighted& choice : choices) total += choice.weight;
  std::uint64_t roll = rng.below(total);
  for (const Weighted& choice : choices) {
    if (roll < choice.weight) return choice.name;
    roll -= choice.weight;
  }
  return choices.back().name;
}

inline std::string Padded(std::uint64_t value, std::size_t width) {
  std::string text = std::to_string(value);
  if (text.size() < width) text.insert(0, width - text.size(), '0');
  return text;
}

// Ball rows are lettered without I, O, Q, S, X and Z: A..Y, then AA, AB, ...
inline std::string BallRow(std::uint64_t row) {
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
inline std::array<std::uint64_t, kPowerCount> PowerPinCounts(std::uint64_t netCount) {
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

}  // namespace make_design
