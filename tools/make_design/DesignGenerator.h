#pragma once
// Generates a plausible package design snapshot from a seed and a size: a
// layer stack-up, padstacks, a flip-chip die with a wire-bonded die stacked
// on it, a BGA and passives, nets whose connectivity records are skewed the
// way real packages are (a few ground and power nets hold most of them), full
// geometry, outlines, composite pads and logical pins.
//
// The same options give the same bytes, whatever the output file is called.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/common/FileWriter.h"

namespace make_design {

struct DesignOptions {
  std::uint64_t seed = 1;
  std::uint64_t connRecords = 10000;
  std::uint64_t nets = 0;                   // 0: chosen from connRecords
  std::optional<std::uint64_t> geoRecords;  // default: a quarter of connRecords
  int conductorLayers = 8;
  std::string name;   // default "pkg_<seed>.mcm"
  std::string title;  // default "PKG <seed>"
};

// The fixed names of the nets that hold most connectivity records, largest
// first. The fourth and fifth hold the same number of records.
const std::vector<std::string>& PowerNetNames();

struct DesignSummary {
  std::vector<std::pair<std::string, std::uint64_t>> tableRecords;  // in file order
  std::uint64_t nets = 0;
};

// Throws std::invalid_argument for options that make no design.
DesignSummary WriteDesign(const DesignOptions& options, veltools::FileWriter& out);

}  // namespace make_design
