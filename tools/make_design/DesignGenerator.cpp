#include "tools/make_design/DesignGenerator.h"

#include <stdexcept>

#include "tools/make_design/Generator.h"

namespace make_design {

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
