#include "executor/ConnectivitySplit.h"

#include <algorithm>

#include <boost/lexical_cast.hpp>

namespace {

// The class groups a split net is extracted in. Together they are exactly the
// classes the connectivity view admits, so the three pieces of a net hold what
// one connectivity run would hold for it.
const std::vector<std::vector<AString>> kClassGroups = {
    {L"CONDUCTOR", L"ETCH"},
    {L"PIN"},
    {L"VIA CLASS"},
};

// The rank keeps the names of different nets apart even where the generator's
// file name sanitising makes the nets themselves look alike.
AString SplitRunName(std::size_t rank, const AString& net, const std::vector<AString>& classes) {
  AString name = AString(boost::lexical_cast<std::string>(rank)) + L"_" + net;
  for (const AString& className : classes) name += L"_" + className;
  return name;
}

}  // namespace

void NetRecordCounts::add(const std::string& net) {
  if (last_ == counts_.end() || last_->first != net) last_ = counts_.try_emplace(net, 0).first;
  ++last_->second;
}

RankedNets RankNets(const NetRecordCounts& counts) {
  RankedNets ranked;
  ranked.reserve(counts.perNet().size());
  for (const auto& [net, count] : counts.perNet()) ranked.emplace_back(count, net);
  std::sort(ranked.begin(), ranked.end());
  std::reverse(ranked.begin(), ranked.end());
  return ranked;
}

SplitPlan PlanSplit(const RankedNets& ranked) {
  SplitPlan plan;
  for (std::size_t rank = 0; rank < std::min(kMaxSplitNets, ranked.size()); ++rank) {
    const AString net(ranked[rank].second);
    for (const std::vector<AString>& classes : kClassGroups)
      plan.runs.push_back(SplitRun{SplitRunName(rank, net, classes), net, classes});
    plan.splitNets.push_back(net);
  }
  return plan;
}
