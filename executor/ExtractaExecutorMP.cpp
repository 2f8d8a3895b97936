// The default run: every view in an extracta process of its own, with the
// connectivity view divided further. A survey run lists the net of every
// connectivity record; the four nets with the most records are extracted in
// three class groups each, one "remainder" run takes every other net, and the
// pieces are concatenated into conn.txt with a single header.
//
// Parallelism lies only in the child processes: every wait polls the
// generator pool, so a child failing anywhere ends the operation during
// whichever wait is in progress.

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "core/AString.h"
#include "core/ExtractaParserException.h"
#include "core/LongFileName.h"
#include "core/VelDebug.h"
#include "executor/BackgroundPacker.h"
#include "executor/ConnectivityMerge.h"
#include "executor/ConnectivitySplit.h"
#include "executor/ExtractaExecutor.h"
#include "executor/SurveyCount.h"
#include "process/ExtractaViewGenerator.h"
#include "views/ExtractaViewControl.h"
#include "views/ExtractaViewDef.h"
#include "views/ViewTypes.h"

namespace {

using GeneratorPtr = boost::shared_ptr<ExtractaViewGenerator>;
using GeneratorList = std::vector<GeneratorPtr>;

}  // namespace

bool ExtractaExecutor::createExtractaControlFileAndViewsMP(const AString& designFile,
                                                           const ViewSet& views,
                                                           const std::vector<AString>& nets,
                                                           std::vector<ActiveView>& activeViews) {
  ExtractaViewGenerator::maxConcurrentExtractas = ExtractaViewGenerator::DefaultConcurrencyLimit();
  VelDebug(1, L"*createExtractaControlFileAndViewsMP: workingdir %s\n",
           workingDir.FilePath().c_str());

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
          design, ExtractaViewDef(type, nets, false), workingDir, generatorOption, AString(),
          &reports));
    }

    if (views.Contains(kConn)) {
      {
        ExtractaViewGenerator survey(design, ExtractaViewDef::MakeNetListDef(nets), workingDir,
                                     generatorOption, AString(L"nets"), &reports);
        const AString surveyFile = survey.waitForViewFile().path;
        NetRecordCounts counts;
        const uint64_t records = CountSurvey(VEL_ANSI(surveyFile), counts);
        VelDebug(1, L"createExtractaControlFileAndViewsMP %d connectivity records\n",
                 static_cast<int>(records));
        const SplitPlan plan = PlanSplit(RankNets(counts));
        for (const SplitRun& run : plan.runs) {
          connGenerators.push_back(boost::make_shared<ExtractaViewGenerator>(
              design, ExtractaViewDef::MakeNetClassDef(run.net, run.classes), workingDir,
              generatorOption, run.name, &reports));
        }

        // The remainder takes every net not split, whatever the net selection:
        // it excludes the split nets and selects nothing.
        connGenerators.push_back(boost::make_shared<ExtractaViewGenerator>(
            design, ExtractaViewDef(kConn, plan.splitNets, true), workingDir, generatorOption,
            AString(L"remainder"), &reports));
      }

      const AString combinedPath = workingDir.FilePath() + MakeViewFileName(kConn, AString());
      ConnectivityMerge merge(combinedPath);
      std::vector<std::string> pieces;
      for (const GeneratorPtr& generator : connGenerators) {
        const AString piece = generator->waitForViewFile().path;
        reports.step("merging connectivity");
        try {
          merge.add(piece);
        } catch (const ExtractaParserException& failure) {
          throw ExtractaParserException(std::string("createExtractaControlFileAndViewsMP ") +
                                        failure.what());
        }
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
