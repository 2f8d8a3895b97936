// The default run: every view in an extracta process of its own, with the
// connectivity view divided further. A survey run lists the net of every
// connectivity record; the four nets with the most records are extracted in
// three class groups each, one "remainder" run takes every other net, and the
// pieces are concatenated into conn.txt with a single header.
//
// Parallelism lies only in the child processes: every wait polls the
// generator pool, so a child failing anywhere ends the operation during
// whichever wait is in progress.

#include <algorithm>
#include <cstdint>
#include <exception>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "core/AString.h"
#include "core/ExtractaParserException.h"
#include "core/LongFileName.h"
#include "core/VelDebug.h"
#include "executor/BackgroundPacker.h"
#include "executor/ConnectivityMerge.h"
#include "executor/ExtractaExecutor.h"
#include "process/ExtractaViewGenerator.h"
#include "reader/ExtractaViewData.h"
#include "reader/ViewFileScanner.h"
#include "views/ExtractaViewControl.h"
#include "views/ExtractaViewDef.h"
#include "views/ViewTypes.h"

namespace {

// Nets with the most connectivity records that get processes of their own.
constexpr std::size_t kMaxSplitNets = 4;

// The class groups a split net is extracted in. Together they are exactly the
// classes the connectivity view admits, so the three pieces of a net hold what
// one connectivity run would hold for it.
const std::vector<std::vector<AString>> kClassGroups = {
    {L"CONDUCTOR", L"ETCH"},
    {L"PIN"},
    {L"VIA CLASS"},
};

using GeneratorPtr = boost::shared_ptr<ExtractaViewGenerator>;
using GeneratorList = std::vector<GeneratorPtr>;

// (count, net name), ranked largest first.
using RankedNets = std::vector<std::pair<uint64_t, std::string>>;

// Counts the survey's records per NET_NAME text (the empty name counts like
// any other) while reading it record by record: only a count per net is
// kept, so memory follows the number of nets, not the size of the design.
// Fails as a read of the whole table would: a text that is no view file with
// the reader's message, then a survey without the column, then the first
// record without the field.
std::map<std::string, uint64_t> CountRecordsPerNet(const AString& surveyFile, uint64_t& records) {
  const std::string path = VEL_ANSI(surveyFile);
  std::map<std::string, uint64_t> recordsPerNet;
  uint32_t netColumn = ExtractaViewData::kNoColumn;
  uint64_t shortRecord = 0;  // the first record without the field, from 1
  // extracta lists a net's records together, so most records name the same
  // net as the one before; counting a run of them locally saves a map lookup
  // per record, and any other order gives the same counts.
  std::string runNet;
  uint64_t runLength = 0;
  ViewFileScanner scanner(path, [&](const ExtractaViewData::Row& record) {
    if (records++ == 0) netColumn = scanner.header().columnIndex("NET_NAME");
    if (netColumn >= record.size()) {
      if (shortRecord == 0) shortRecord = records;
      return;
    }
    const std::string& net = record[netColumn];
    if (runLength > 0 && net == runNet) {
      ++runLength;
      return;
    }
    if (runLength > 0) recordsPerNet[runNet] += runLength;
    runNet = net;
    runLength = 1;
  });
  scanViewFile(path, scanner);
  if (runLength > 0) recordsPerNet[runNet] += runLength;

  // A survey without the column is a broken survey, whether or not it found
  // records: its nets cannot be told apart.
  if (scanner.header().columnIndex("NET_NAME") == ExtractaViewData::kNoColumn)
    throw ExtractaParserException("connectivity survey " + path + " has no NET_NAME column");
  if (shortRecord != 0) {
    throw ExtractaParserException("connectivity survey " + path + " record " +
                                  std::to_string(shortRecord) + " has no NET_NAME field");
  }
  return recordsPerNet;
}

// The nets descending by record count, and among equal counts descending by
// name (byte-wise), so that of two nets tied for the last split place the
// greater name is split.
RankedNets RankNets(const std::map<std::string, uint64_t>& recordsPerNet) {
  RankedNets ranked;
  ranked.reserve(recordsPerNet.size());
  for (const auto& [net, count] : recordsPerNet) ranked.emplace_back(count, net);
  std::sort(ranked.begin(), ranked.end());
  std::reverse(ranked.begin(), ranked.end());
  return ranked;
}

// "<index>_<net>_<classes joined by _>", e.g. "0_GND_CONDUCTOR_ETCH". The index
// keeps the names of different nets apart even where the generator's file name
// sanitising makes the nets themselves look alike.
AString SplitRunName(std::size_t index, const AString& net, const std::vector<AString>& classes) {
  AString name = AString(boost::lexical_cast<std::string>(index)) + L"_" + net;
  for (const AString& className : classes) name += L"_" + className;
  return name;
}

}  // namespace

bool ExtractaExecutor::createExtractaControlFileAndViewsMP(const AString& designFile,
                                                           const ViewSet& views,
                                                           const std::vector<AString>& nets,
                                                           std::vector<ActiveView>& activeViews) {
  ExtractaViewGenerator::maxConcurrentExtractas = ExtractaViewGenerator::DefaultConcurrencyLimit();
  VelDebug(1, L"*createExtractaControlFileAndViewsMP: workingdir %s\n",
           workingDir.FilePath().c_str());

  // Declared first, so that it is removed after the generators are dropped.
  const BackgroundPacker::Listening packing(packer.get());
  GeneratorList otherGenerators;
  GeneratorList connGenerators;
  try {
    const LongFileName design(designFile);

    // Every other view starts (or queues) first, so its process runs while the
    // connectivity survey is waited for and read.
    for (int n = 0; n < static_cast<int>(views.GetCount()); ++n) {
      const ViewType type = views.GetAt(n);
      if (type == kConn) continue;
      otherGenerators.push_back(boost::make_shared<ExtractaViewGenerator>(
          design, ExtractaViewDef(type, nets, false), workingDir, generatorOption, AString()));
    }

    if (views.Contains(kConn)) {
      {
        ExtractaViewGenerator survey(design, ExtractaViewDef::MakeNetListDef(nets), workingDir,
                                     generatorOption, AString(L"nets"));
        const AString surveyFile = survey.waitForViewFile().path;
        uint64_t surveyRecords = 0;
        const std::map<std::string, uint64_t> recordsPerNet =
            CountRecordsPerNet(surveyFile, surveyRecords);
        VelDebug(1, L"createExtractaControlFileAndViewsMP %d connectivity records\n",
                 static_cast<int>(surveyRecords));
        const RankedNets ranked = RankNets(recordsPerNet);

        std::vector<AString> splitNets;
        const std::size_t splitCount = std::min(kMaxSplitNets, ranked.size());
        for (std::size_t i = 0; i < splitCount; ++i) {
          const AString net(ranked[i].second);
          for (const std::vector<AString>& classes : kClassGroups) {
            connGenerators.push_back(boost::make_shared<ExtractaViewGenerator>(
                design, ExtractaViewDef::MakeNetClassDef(net, classes), workingDir, generatorOption,
                SplitRunName(i, net, classes)));
          }
          splitNets.push_back(net);
        }

        // The remainder takes every net not split, whatever the net selection:
        // it excludes the split nets and selects nothing.
        connGenerators.push_back(boost::make_shared<ExtractaViewGenerator>(
            design, ExtractaViewDef(kConn, splitNets, true), workingDir, generatorOption,
            AString(L"remainder")));
      }

      const AString combinedPath = workingDir.FilePath() + MakeViewFileName(kConn, AString());
      ConnectivityMerge merge(combinedPath);
      std::vector<std::string> pieces;
      for (const GeneratorPtr& generator : connGenerators) {
        const AString piece = generator->waitForViewFile().path;
        if (onStep) onStep("merging connectivity");
        merge.add(piece);
        pieces.push_back(VEL_ANSI(piece));
      }
      if (packer) packer->combinedFrom(VEL_ANSI(combinedPath), pieces);
      VelDebug(2, L"createExtractaControlFileAndViewsMP merged %d files, %lld bytes in %lld us\n",
               merge.filesAdded(), static_cast<long long>(merge.bytesWritten()),
               static_cast<long long>(merge.microseconds()));
      activeViews.push_back(ActiveView{kConn, combinedPath});
    }

    for (const GeneratorPtr& generator : otherGenerators) {
      const ActiveView view = generator->waitForViewFile();
      requireViewFile(view.path);
      activeViews.push_back(view);
    }
  } catch (const std::exception& failure) {
    errorMessage = AString(L"createExtractaControlFileAndViewsMP: ") + AString(failure.what());
    return false;
  }
  return true;
}
