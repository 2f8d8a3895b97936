#pragma once
// ExtractaExecutor: the owner of one extraction run. It creates a fresh
// working directory, creates the views there with one extracta process or
// several, packs or moves the result, keeps the text of the last failure, and
// removes the working directory when destroyed (unless VELTAR_EXTRACTA_DEBUG
// is defined then).

#include <memory>
#include <string>
#include <vector>

#include "core/AString.h"
#include "core/LongFileName.h"
#include "executor/RunReports.h"
#include "views/ViewTypes.h"

class BackgroundPacker;
class Launcher;

class ExtractaExecutor {
 public:
  ExtractaExecutor();
  virtual ~ExtractaExecutor();
  ExtractaExecutor(const ExtractaExecutor&) = delete;
  ExtractaExecutor& operator=(const ExtractaExecutor&) = delete;

  // Working directory: "extract" + local wall-clock seconds, under the base.
  bool createWorkingDir(const AString& base);
  bool deleteWorkingDir();

  // Creates the views of the set in a new working directory under the base:
  // several processes when the set holds conn, else one. False with
  // errorMessage set on failure.
  bool createExtractaViews(const AString& designFile, const AString& base, const ViewSet& views,
                           const std::vector<AString>& nets, std::vector<ActiveView>& activeViews);

  // The default run: a process per view, the connectivity survey, the split of
  // the largest nets, the remainder, and the merge into conn.txt.
  bool createExtractaControlFileAndViewsMP(const AString& designFile, const ViewSet& views,
                                           const std::vector<AString>& nets,
                                           std::vector<ActiveView>& activeViews);

  // Deflates view files on worker threads while later views are still being
  // extracted, for an archive written by zipActiveViews.
  void packWhileExtracting();

  // Tells `observer` (the caller's status line) how the run's children and
  // steps go; it must outlive the executor's operations.
  void reportTo(RunObserver* observer) { reports.add(observer); }

  // Starts every extracta child through `launcher` (a farm engine's, or a
  // command prefix), which also gives the number of children that run at
  // once; it must outlive the executor's operations. Without one the
  // children run on this machine.
  void launchThrough(const Launcher* launcher) { this->launcher = launcher; }

  // Packaging, from the working directory's listing.
  bool addFilesToWorkingDir(const std::vector<AString>& files);
  bool zipActiveViews(const AString& outputPath, const AString& filterExtension);
  bool moveActiveViews(const AString& outputPath, const AString& filterExtension);

  LongFileName getWorkingDir() const { return workingDir; }
  const AString& getErrorMessage() const { return errorMessage; }

 private:
  // extracta reports success by its exit code alone; a view file it did not
  // write would leave the run's delivery silently without that view. Throws
  // ExtractaParserException when `path` is not a file.
  static void requireViewFile(const AString& path);
  // Throws ExtractaParserException when a piece cannot be merged.
  void writeOutPlacedCombined();
  // Marks the new working directory as this run's (kept: for a look, never
  // to be removed by another run) and has the watchdog remove it, unless
  // kept, should the run be killed.
  void claimWorkingDir(bool kept);

  AString errorMessage;
  LongFileName workingDir;
  bool generatorOption = true;  // puts "-c" on every extracta command line
  bool spareFlag = false;       // never consulted; the executor's established shape has it
  // A run removes only a working directory it created itself: two runs in the
  // same second compute the same name, and the second must not remove the
  // first one's directory.
  bool createdWorkingDir = false;
  std::unique_ptr<BackgroundPacker> packer;
  // A combined connectivity file whose bodies were left to the packer, and
  // its pieces in merge order (narrow paths): written out in full when
  // packing if the packer cannot make its entry after all.
  AString placedCombined;
  std::vector<std::string> placedPieces;
  // Every generator and runExtracta reports here: to the caller and the packer.
  RunReports reports;
  const Launcher* launcher = nullptr;
};
