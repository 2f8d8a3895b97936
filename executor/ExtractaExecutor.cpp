// ExtractaExecutor: the working directory and the choice between one extracta
// process and several, with the one-process run itself.

#include "executor/ExtractaExecutor.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "core/ExtractaParserException.h"
#include "core/File.h"
#include "core/VelAssert.h"
#include "core/VelDebug.h"
#include "core/Watchdog.h"
#include "executor/BackgroundPacker.h"
#include "executor/RunMarks.h"
#include "process/ExtractaViewGenerator.h"
#include "views/ExtractaViewControl.h"

#define VEL_ASSERT_SOURCE "ExtractaExecutor"

namespace {

// How many run numbers from the computed one a run tries before it gives up:
// far more runs than start together on one base in practice, few enough that
// a base full of foreign "extract" directories fails quickly.
constexpr int kWorkingDirTries = 1000;

// Days from 1970-01-01 to the given civil date of the proleptic Gregorian
// calendar (negative before it).
int64_t DaysSince1970(int64_t year, unsigned month, unsigned day) {
  year -= month <= 2;
  const int64_t era = (year >= 0 ? year : year - 399) / 400;
  const unsigned yearOfEra = static_cast<unsigned>(year - era * 400);
  const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + static_cast<int64_t>(dayOfEra) - 719468;
}

// Seconds since 1970 of the local wall clock (not of UTC), truncated to the
// low 32 bits: the number that names a run's working directory. Throws when
// the clock cannot be converted to local time.
int LocalRunNumber() {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  // The run number is taken once per run, on the main thread, so the shared
  // result buffer of localtime is not raced.
  const std::tm* local = std::localtime(&now);
  if (!local) throw std::runtime_error("could not convert calendar time to local time");
  const int64_t days =
      DaysSince1970(local->tm_year + int64_t{1900}, static_cast<unsigned>(local->tm_mon + 1),
                    static_cast<unsigned>(local->tm_mday));
  const int64_t seconds = days * 86400 + local->tm_hour * 3600 + local->tm_min * 60 + local->tm_sec;
  return static_cast<int>(static_cast<uint32_t>(seconds));
}

std::string WithoutTrailingSeparator(std::string path) {
  while (path.size() > 1 && VeltIsPathSeparator(static_cast<unsigned char>(path.back())))
    path.pop_back();
  return path;
}

}  // namespace

ExtractaExecutor::ExtractaExecutor() = default;

ExtractaExecutor::~ExtractaExecutor() {
  // The workers end before the files they may be reading go.
  packer.reset();
  // Read now, not at construction: a user may set it while a long run goes on
  // to keep its files for a look.
  if (!std::getenv("VELTAR_EXTRACTA_DEBUG"))
    deleteWorkingDir();
  else if (createdWorkingDir && LFN_IsExistingDirectory(workingDir))
    claimWorkingDir(true);
}

void ExtractaExecutor::packWhileExtracting() {
  if (packer) return;
  packer.reset(new BackgroundPacker());
  reports.add(packer.get());
}

bool ExtractaExecutor::createWorkingDir(const AString& base) {
  LongFileName baseDir(base);
  baseDir.MakeItDirectory();
  if (!baseDir.IsDirectory()) {
    VEL_ASSERT(!"VelLinkServer::createWorkingDir, can't find workingdirpath");
    errorMessage.Format(L"Could not find working directory at \"%s\"", base.c_str());
    return false;
  }

  // What runs on this base left when they died together with their
  // watchdog goes first; only their own, ended runs' directories.
  for (const std::string& dead : RemoveDeadRuns(VEL_ANSI(baseDir.FilePath())))
    VelDebug(1, L"*createWorkingDir: removed %s, left by a run that has ended\n",
             AString(dead).c_str());

  const int runNumber = LocalRunNumber();
  deleteWorkingDir();

  // Runs started together on one base (a batch script, several simulation
  // tools) compute the same number: a name that is taken already moves the
  // run to the next number up. Each try creates the directory in one step, so
  // of two runs racing for a name exactly one gets it, and a run only ever
  // works in, and removes, a directory it made itself.
  for (int tries = 0; tries < kWorkingDirTries; ++tries) {
    AString directory;
    directory.Format(L"%sextract%d/", baseDir.FilePath().c_str(),
                     static_cast<int>(static_cast<uint32_t>(runNumber) + tries));
    workingDir = LongFileName(directory);
    createdWorkingDir = LFN_CreateDirectory(workingDir);
    // A name that is free and still cannot be made (a base that may not be
    // written, a full disk) fails the same way at the next number.
    if (createdWorkingDir || !VeltPathExists(workingDir.FilePath())) break;
  }
  if (!createdWorkingDir) {
    VEL_ASSERT(!"VelLinkServer::createExtractaViews, could not create working directory");
    errorMessage.Format(L"Could not create working directory at \"%s\"",
                        workingDir.FilePath().c_str());
    return false;
  }
  claimWorkingDir(std::getenv("VELTAR_EXTRACTA_DEBUG") != nullptr);
  return true;
}

void ExtractaExecutor::claimWorkingDir(bool kept) {
  const std::string directory = WithoutTrailingSeparator(VEL_ANSI(workingDir.FilePath()));
  const std::string mark = RunMarkPath(directory);
  // A run killed outright: its watchdog removes them once the children are
  // gone. A run that dies with its watchdog: the mark lets the next run on
  // this base tell the directory as this run's and remove it.
  if (kept) {
    VeltForgetRemoval(directory);
    VeltForgetRemoval(mark);
  } else {
    VeltRemoveWhenKilled(directory);
    VeltRemoveWhenKilled(mark);
  }
  const std::string text = RunMarkText(VeltThisProcess(), kept);
  VeltFileInPlace file;
  if (!file.Create(mark) || !file.Write(text.data(), text.size()) || !file.Commit())
    VelDebug(1, L"*createWorkingDir: cannot mark %s as this run's: %s\n", AString(mark).c_str(),
             AString(file.ErrorText()).c_str());
}

bool ExtractaExecutor::deleteWorkingDir() {
  if (!createdWorkingDir || !workingDir.IsInitialized() || !LFN_IsExistingDirectory(workingDir))
    return true;
  if (LFN_Delete(workingDir)) {
    createdWorkingDir = false;
    const std::string directory = WithoutTrailingSeparator(VEL_ANSI(workingDir.FilePath()));
    const std::string mark = RunMarkPath(directory);
    if (!VeltRemoveTree(AString(mark)))
      VelDebug(1, L"*deleteWorkingDir: cannot remove %s\n", AString(mark).c_str());
    VeltForgetRemoval(directory);
    VeltForgetRemoval(mark);
    return true;
  }
  VEL_ASSERT(!"VelLinkServer::deleteWorkingDir, failed");
  return false;
}

void ExtractaExecutor::requireViewFile(const AString& path) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(std::filesystem::u8path(VEL_ANSI(path)), error))
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
    // Binary: the writer ends each line with CR LF itself, which a text
    // stream on Windows would turn into CR CR LF.
    std::ofstream control(VEL_ANSI(controlFile.FilePath()),
                          std::ios::out | std::ios::trunc | std::ios::binary);
    // A control file that could not be written shows up as extracta's failure;
    // the trace says where it began.
    if (!WriteControlFile(control, views, nets))
      VelDebug(1, L"createExtractaViews: writing %s failed\n", controlFile.FilePath().c_str());
  }

  std::vector<ActiveView> produced;
  CollectViewFiles(views, workingDir, produced);
  try {
    ExtractaViewGenerator::runExtracta(LongFileName(designFile), controlFile, generatorOption,
                                       produced, workingDir, &reports, launcher);
    for (const ActiveView& view : produced) requireViewFile(view.path);
  } catch (const std::exception& e) {
    errorMessage = AString("extracta run failed: ") + AString(e.what());
    return false;
  }

  activeViews.reserve(activeViews.size() + produced.size());
  activeViews.insert(activeViews.begin(), produced.begin(), produced.end());
  return true;
}
