#pragma once
// The split of the connectivity view: which nets get runs of their own, and
// what those runs are. Pure functions over net names, so that the choice can
// be checked without any process.
//
// The nets with the most connectivity records are extracted in three class
// groups each; one remainder run takes every other net.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "core/AString.h"

// Records per net, counted one record's NET_NAME text at a time (taken exactly
// as read; the empty name counts like any other). Only a count per net is
// kept, never the records.
class NetRecordCounts {
 public:
  NetRecordCounts() = default;
  NetRecordCounts(const NetRecordCounts&) = delete;  // `last_` points into this one's map
  NetRecordCounts& operator=(const NetRecordCounts&) = delete;

  void add(const std::string& net);
  void clear() {
    counts_.clear();
    last_ = counts_.end();
  }
  const std::map<std::string, uint64_t>& perNet() const { return counts_; }

 private:
  std::map<std::string, uint64_t> counts_;
  // extracta lists a net's records together: a record naming the same net as
  // the one before is counted without a lookup.
  std::map<std::string, uint64_t>::iterator last_ = counts_.end();
};

// (count, net name), ranked largest first.
using RankedNets = std::vector<std::pair<uint64_t, std::string>>;

// Descending by record count, and among equal counts descending by name
// (byte-wise), so that of two nets tied for the last split place the greater
// name is split.
RankedNets RankNets(const NetRecordCounts& counts);

// One run of a split net: its generator's name, the net and the classes.
struct SplitRun {
  AString name;  // "<rank>_<net>_<classes joined by _>", e.g. "0_GND_CONDUCTOR_ETCH"
  AString net;
  std::vector<AString> classes;
};

struct SplitPlan {
  std::vector<SplitRun> runs;      // net by net in rank order, each in class-group order
  std::vector<AString> splitNets;  // what the remainder run excludes, in rank order
};

// Nets with the most records that get runs of their own.
constexpr std::size_t kMaxSplitNets = 4;

// The runs for the first kMaxSplitNets nets of the ranking, three class groups
// each, and the nets the remainder run excludes.
SplitPlan PlanSplit(const RankedNets& ranked);
