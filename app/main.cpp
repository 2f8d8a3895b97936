// VelExtracta: turns a package design into text views through extracta and
// delivers them as one archive (the VLX file) or as files in a directory.
//
//   VelExtracta [-z] [-cell] [-n NET,NET...] [-add FILE,FILE...] DESIGN.mcm OUTPUT
//
// Standard output carries one line after packaging, standard error one line
// per failure; the exit code is 0 when the views were created and packed, 1
// otherwise. A failure without a line of its own (a path whose status cannot
// be read, an added file that cannot be copied, a clock that cannot be read)
// ends the run with one line naming the path and the cause, after the same
// clean-up as every other failure: the children ended, the working directory
// removed, nothing delivered.

#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "app/CommandLine.h"
#include "app/Progress.h"
#include "core/AString.h"
#include "core/File.h"
#include "core/Interrupt.h"
#include "core/Memory.h"
#include "core/PathError.h"
#include "core/VelAssert.h"
#include "core/VelDebug.h"
#include "core/Watchdog.h"
#include "executor/ExtractaExecutor.h"
#include "process/ExtractaViewGenerator.h"
#include "process/Launcher.h"
#include "views/ViewTypes.h"

#define VEL_ASSERT_SOURCE "VelExtracta"

namespace fs = std::filesystem;

namespace {

// An empty path stands for the current directory itself.
fs::path Absolute(const fs::path& path) {
  return path.empty() ? fs::current_path() : fs::absolute(path);
}

// A path that is not there is an answer; one whose status cannot be read at
// all (a loop of symbolic links, a directory that may not be searched) is a
// failure that ends the run. `reason` receives the system's text either way.
fs::file_status StatusOf(const fs::path& path, std::string* reason = nullptr) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (reason) *reason = error ? error.message() : std::string();
  if (!fs::status_known(status)) throw PathError("cannot read the status of a path", path, error);
  return status;
}

// The outcome lines carry the address of a path's wide text, not the text
// itself: that is the program's established output, kept as it is.
const void* PathValue(const AString& path) { return static_cast<const void*>(path.c_str()); }

// One run from an existing design: create the views in a working directory,
// pack or move them, report. The executor removes its working directory when
// this returns.
int RunExtraction(const CommandLine& options, const Launcher& launcher, const fs::path& designPath,
                  const fs::path& outputPath) {
  const AString designText(designPath.u8string());
  const AString outputText(outputPath.u8string());

  ExtractaExecutor executor;
  const ViewSet views = options.standardViews ? kStandardViews : kCellViews;
  // Inside an output directory the working directory sits on the same file
  // system as the views' destination, so moving them is a rename.
  const fs::path base =
      fs::is_directory(StatusOf(outputPath)) ? outputPath : designPath.parent_path();

  ProgressLine progress;
  executor.reportTo(&progress);
  executor.launchThrough(&launcher);
  std::vector<ActiveView> activeViews;
  if (options.zip) executor.packWhileExtracting();
  const bool created = executor.createExtractaViews(designText, AString(base.u8string()), views,
                                                    options.nets, activeViews);
  // Without a working directory there is nothing to add to; packaging then
  // finds nothing either.
  if (created && !options.adds.empty() && !executor.addFilesToWorkingDir(options.adds))
    VelDebug(1, L"addFilesToWorkingDir: no working directory\n");
  progress.clear();

  // An interrupted run delivers nothing, whatever its children had finished.
  if (!created || InterruptRequested()) {
    VelDebug(1, L"view creation failed: %s\n", executor.getErrorMessage().c_str());
    // Children ended early may have left tasks the farm engine still holds.
    launcher.endLeftovers();
    VEL_ASSERT(!"view creation failed");
    std::cerr << "view creation failed (1).\n";
    return 1;
  }

  const AString filterExtension = options.adds.empty() ? AString(".txt") : AString();
  progress.step("packing");
  const bool packed = options.zip ? executor.zipActiveViews(outputText, filterExtension)
                                  : executor.moveActiveViews(outputText, filterExtension);
  progress.clear();
  // Interrupted while packing: the archive was abandoned or the files put
  // back, so nothing is delivered and the run ends as during extraction.
  if (!packed && InterruptRequested()) {
    VEL_ASSERT(!"view creation failed");
    std::cerr << "view creation failed (1).\n";
    return 1;
  }
  std::cout << "VLX file written: " << PathValue(outputText) << "\n";
  if (!packed) {
    VEL_ASSERT(!"view zip or move failed");
    std::cerr << "view creation failed (2).\n";
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // No setlocale(): the program runs in the C locale on purpose. Narrow and
  // wide text convert as UTF-8 in core, options fold ASCII case only, and
  // numbers print with a point, whatever locale data a machine has.
  //
  const CommandLine options = ScanCommandLine(argc, argv);
  if (!options.enoughArguments) return 1;

  // How the children start and how many run at once, settled before anything
  // is made: a setting that cannot be used ends the run here, with one line.
  std::string launchError;
  const std::unique_ptr<Launcher> launcher = ChooseLauncher(
      ThisProcessLaunchEnvironment(ExtractaViewGenerator::DefaultConcurrencyLimit()), launchError);
  if (!launcher) {
    std::cerr << launchError << "\n";
    return 1;
  }

  // Forked while this is the only thread; before the handlers, so that the
  // watchdog inherits none of them. It also ends what a farm engine holds of
  // the children's tasks when this program is killed.
  StartChildWatchdog(launcher->leftoverCommand());
  VeltReturnLargeBlocksAtOnce();
  InstallInterruptHandlers();
  // A write past the file size limit (a quota, a full volume set up as a
  // limit) must fail like any other failed write, so that the run ends
  // through its failure path and removes its working directory.
  VeltFailWritesPastSizeLimit();

  try {
    const fs::path designPath = fs::u8path(argv[argc - 2]);
    const fs::path outputPath = fs::u8path(argv[argc - 1]);
    std::string reason;
    if (StatusOf(designPath, &reason).type() == fs::file_type::not_found) {
      VelDebug(1, L"mcm file %s: %s\n", AString(designPath.u8string()).c_str(),
               AString(reason).c_str());
      VEL_ASSERT(!"mcm file does not exist");
      const AString designText(designPath.u8string());
      std::cerr << "mcm file does not exist: " << PathValue(designText) << "\n";
      return 1;
    }
    // extracta runs inside the working directory, so every path it is handed
    // must hold from there: relative paths are resolved against this
    // program's directory before the run begins.
    return RunExtraction(options, *launcher, Absolute(designPath), Absolute(outputPath));
  } catch (const std::exception& e) {
    // Unwinding has ended the children and removed the working directory.
    launcher->endLeftovers();
    std::cerr << e.what() << "\n";
  } catch (...) {
    launcher->endLeftovers();
    std::cerr << "the run ended on an unknown failure\n";
  }
  return 1;
}
