// The default run: every view in an extracta process of its own, with the
// connectivity view divided further. A survey run lists the net of every
// connectivity record; the four nets with the most records are extracted in
// three class groups each, one "remainder" run takes every other net, and the
// pieces are concatenated into conn.txt with a single header.
//
// This thread only starts and watches the children; the survey is counted
// and the pieces are merged on threads of their own. Every wait polls the
// generator pool, so a child failing anywhere ends the operation during
// whichever wait is in progress, and so does a failed merge.

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "core/AString.h"
#include "core/ExtractaParserException.h"
#include "core/File.h"
#include "core/LongFileName.h"
#include "core/VelDebug.h"
#include "executor/BackgroundMerge.h"
#include "executor/BackgroundPacker.h"
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
  // The slots the launcher was given (a farm job's allocation), else half the
  // threads this process may use.
  ExtractaViewGenerator::maxConcurrentExtractas =
      launcher ? launcher->slots() : ExtractaViewGenerator::DefaultConcurrencyLimit();
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
          &reports, launcher));
    }

    if (views.Contains(kConn)) {
      {
        ExtractaViewGenerator survey(design, ExtractaViewDef::MakeNetListDef(nets), workingDir,
                                     generatorOption, AString(L"nets"), &reports, launcher);
        // Counted while extracta writes it: once the child has ended only the
        // last part is left to read.
        NetRecordCounts counts;
        SurveyCounter counting(VEL_ANSI(survey.outputPath()), counts);
        if (kVeltOpenFilesCanBeReplaced) counting.followAlongside();
        survey.waitForViewFile();
        // From the survey's end until the split runs have started.
        const RunStepScope surveyStep(reports, RunStep::kSurvey);
        const uint64_t records = counting.finish();
        VelDebug(1, L"createExtractaControlFileAndViewsMP %d connectivity records\n",
                 static_cast<int>(records));
        const SplitPlan plan = PlanSplit(RankNets(counts));

        // The remainder takes every net not split, whatever the net selection:
        // it excludes the split nets and selects nothing. It usually holds
        // most of the records, so it starts first: its file is compressed
        // while the split runs go on, instead of after the last child.
        const GeneratorPtr remainder = boost::make_shared<ExtractaViewGenerator>(
            design, ExtractaViewDef(kConn, plan.splitNets, true), workingDir, generatorOption,
            AString(L"remainder"), &reports, launcher);
        for (const SplitRun& run : plan.runs) {
          connGenerators.push_back(boost::make_shared<ExtractaViewGenerator>(
              design, ExtractaViewDef::MakeNetClassDef(run.net, run.classes), workingDir,
              generatorOption, run.name, &reports, launcher));
        }
        connGenerators.push_back(remainder);
      }

      // The pieces are merged in list order on a thread of their own, so that
      // this thread only watches the children. For an archive the packer
      // makes the combined entry from the pieces' bodies, so only their
      // places are kept; a working directory kept for a look gets them all.
      const AString combinedPath = workingDir.FilePath() + MakeViewFileName(kConn, AString());
      const ConnectivityMerge::Bodies bodies = packer && !std::getenv("VELTAR_EXTRACTA_DEBUG")
                                                   ? ConnectivityMerge::Bodies::kPlaced
                                                   : ConnectivityMerge::Bodies::kCopied;
      BackgroundMerge merge(combinedPath, "createExtractaControlFileAndViewsMP ", bodies);
      std::vector<std::string> pieces;
      // From the first piece until the combined file is complete.
      std::optional<RunStepScope> mergeStep;
      try {
        for (const GeneratorPtr& generator : connGenerators) {
          const AString piece =
              generator->waitForViewFile([&merge] { merge.throwIfFailed(); }).path;
          if (!mergeStep) mergeStep.emplace(reports, RunStep::kMerge);
          merge.add(piece);
          pieces.push_back(VEL_ANSI(piece));
        }
        merge.finish();
        mergeStep.reset();
      } catch (const ExtractaParserException&) {
        // A piece that failed to merge before another failure was seen is
        // the run's failure, as it would be had the merge kept up.
        if (merge.settle()) merge.throwIfFailed();
        throw;
      }
      if (packer) packer->combinedFrom(VEL_ANSI(combinedPath), pieces);
      if (bodies == ConnectivityMerge::Bodies::kPlaced) {
        placedCombined = combinedPath;
        placedPieces = pieces;
      }
      VelDebug(2, L"createExtractaControlFileAndViewsMP merged %d files, %lld bytes in %lld us\n",
               merge.merge().filesAdded(), static_cast<long long>(merge.merge().bytesWritten()),
               static_cast<long long>(merge.merge().microseconds()));
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
