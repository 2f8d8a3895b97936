// ExtractaExecutor: the working directory and the choice between one extracta
// process and several, with the one-process run itself.

#include "executor/ExtractaExecutor.h"

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fstream>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/filesystem.hpp>

#include "core/ExtractaParserException.h"
#include "core/VelAssert.h"
#include "executor/BackgroundPacker.h"
#include "process/ExtractaViewGenerator.h"
#include "views/ExtractaViewControl.h"

#define VEL_ASSERT_SOURCE "ExtractaExecutor"

namespace {

// Seconds since 1970 of the local wall clock (not of UTC), truncated to the
// low 32 bits: the number that names a run's working directory. Throws when
// the clock cannot be converted to local time.
int LocalRunNumber() {
  namespace pt = boost::posix_time;
  const pt::ptime now = pt::second_clock::local_time();
  const pt::ptime epoch(boost::gregorian::date(1970, 1, 1));
  const int64_t seconds = (now - epoch).total_microseconds() / 1000000;
  return static_cast<int>(static_cast<uint32_t>(seconds));
}

}  // namespace

ExtractaExecutor::ExtractaExecutor() = default;

ExtractaExecutor::~ExtractaExecutor() {
  // The workers end before the files they may be reading go.
  packer.reset();
  // Read now, not at construction: a user may set it while a long run goes on
  // to keep its files for a look.
  if (!std::getenv("VELTAR_EXTRACTA_DEBUG")) deleteWorkingDir();
}

void ExtractaExecutor::packWhileExtracting() {
  if (!packer) packer.reset(new BackgroundPacker());
}

bool ExtractaExecutor::createWorkingDir(const AString& base) {
  LongFileName baseDir(base);
  baseDir.MakeItDirectory();
  if (!baseDir.IsDirectory()) {
    VEL_ASSERT(!"VelLinkServer::createWorkingDir, can't find workingdirpath");
    errorMessage.Format(L"Could not find working directory at \"%s\"", base.c_str());
    return false;
  }

  const int runNumber = LocalRunNumber();
  deleteWorkingDir();

  AString directory;
  directory.Format(L"%sextract%d/", baseDir.FilePath().c_str(), runNumber);
  workingDir = LongFileName(directory);
  // Only a directory this run made itself is ever removed: another run on the
  // same base in the same second computes the same name.
  createdWorkingDir = LFN_CreateDirectory(workingDir);
  if (!createdWorkingDir) {
    VEL_ASSERT(!"VelLinkServer::createExtractaViews, could not create working directory");
    errorMessage.Format(L"Could not create working directory at \"%s\"",
                        workingDir.FilePath().c_str());
    return false;
  }
  return true;
}

bool ExtractaExecutor::deleteWorkingDir() {
  if (!createdWorkingDir || !workingDir.IsInitialized() || !LFN_IsExistingDirectory(workingDir))
    return true;
  if (LFN_Delete(workingDir)) {
    createdWorkingDir = false;
    return true;
  }
  VEL_ASSERT(!"VelLinkServer::deleteWorkingDir, failed");
  return false;
}

void ExtractaExecutor::requireViewFile(const AString& path) {
  boost::system::error_code error;
  if (!boost::filesystem::is_regular_file(boost::filesystem::path(VEL_ANSI(path)), error))
    throw ExtractaParserException(AString("extracta wrote no view file ") + path);
}

bool ExtractaExecutor::createExtractaViews(const AString& designFile, const AString& base,
                                           const ViewSet& views, const std::vector<AString>& nets,
                                           std::vector<ActiveView>& activeViews) {
  if (!createWorkingDir(base)) return false;

  if (views.Contains(kConn))
    return createExtractaControlFileAndViewsMP(designFile, views, nets, activeViews);

  const LongFileName controlFile(workingDir.FilePath() + L"extracta_control.txt");
  {
    std::ofstream control(VEL_ANSI(controlFile.FilePath()), std::ios::out | std::ios::trunc);
    // A control file that could not be written shows up as extracta's failure.
    WriteControlFile(control, views, nets);
  }

  std::vector<ActiveView> produced;
  CollectViewFiles(views, workingDir, produced);
  try {
    ExtractaViewGenerator::runExtracta(LongFileName(designFile), controlFile, generatorOption,
                                       produced, workingDir);
    for (const ActiveView& view : produced) requireViewFile(view.path);
  } catch (const std::exception& e) {
    errorMessage = AString("extracta run failed: ") + AString(e.what());
    return false;
  }

  activeViews.reserve(activeViews.size() + produced.size());
  activeViews.insert(activeViews.begin(), produced.begin(), produced.end());
  return true;
}
