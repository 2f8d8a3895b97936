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
//
// "--help" and "--version" as the only argument introduce the program; fewer
// than two arguments get the usage line. VELTAR_EXTRACTA_REPORT names a file
// the run's report is written to once it is over.

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "app/CommandLine.h"
#include "app/Progress.h"
#include "app/RunReport.h"
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

const char kUsage[] =
    "usage: VelExtracta [-z] [-cell] [-n NET,NET...] [-add FILE,FILE...] DESIGN.mcm OUTPUT\n";

const char kHelp[] =
    "Turns a package design into text views through the layout system's extracta and\n"
    "delivers them as one archive (the VLX file, with -z) or as files in the directory\n"
    "OUTPUT.\n"
    "\n"
    "Options (a slash or a dash, in any case):\n"
    "  -z                 pack the views into the archive OUTPUT\n"
    "  -cell              extract the cell views (layer, cell geometry, cell connectivity,\n"
    "                     die stacks) with one process\n"
    "  -n NET,NET...      restrict the views to these nets\n"
    "  -add FILE,FILE...  deliver these files with the views\n"
    "  --help             this text;  --version  the program's version\n"
    "\n"
    "Environment:\n"
    "  VELTAR_EXTRACTA_DEBUG         defined: keep the working directory, trace on\n"
    "                                standard error\n"
    "  VELTAR_EXTRACTA_PATHOVERRIDE  the extracta program to run instead of\n"
    "                                extracta.exe on PATH\n"
    "  VELTAR_EXTRACTA_LAUNCHER      how each extracta starts: slurm, lsf or sge inside\n"
    "                                a job of that farm engine, or a command prefix\n"
    "                                (\"shell:\" first when it hands the command to a shell)\n"
    "  VELTAR_EXTRACTA_SLOTS         how many extracta run at once (1 to 1024)\n"
    "  VELTAR_EXTRACTA_REPORT        write the run's report to this file: a page when\n"
    "                                it ends in .html, else a trace (Trace Event format)\n"
    "\n"
    "Exit code 0 when the views were created and delivered, 1 otherwise.\n";

// One run from an existing design: create the views in a working directory,
// pack or move them, report. The executor removes its working directory when
// this returns. `outcome` says how the run ended, for its report.
int RunExtraction(const CommandLine& options, const Launcher& launcher, RunReport& report,
                  const fs::path& designPath, const fs::path& outputPath, std::string& outcome) {
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
  executor.reportTo(&report);
  executor.launchThrough(&launcher);
  std::vector<ActiveView> activeViews;
  if (options.zip) executor.packWhileExtracting();
  const bool created = executor.createExtractaViews(designText, AString(base.u8string()), views,
                                                    options.nets, activeViews);
  // Without a working directory there is nothing to add to; packaging then
  // finds nothing either.
  // Counted before packaging moves or removes the view files.
  report.settle();
  if (created && !options.adds.empty() && !executor.addFilesToWorkingDir(options.adds))
    VelDebug(1, L"addFilesToWorkingDir: no working directory\n");
  progress.clear();

  // An interrupted run delivers nothing, whatever its children had finished.
  if (!created || InterruptRequested()) {
    VelDebug(1, L"view creation failed: %s\n", executor.getErrorMessage().c_str());
    outcome = InterruptRequested()
                  ? InterruptMessage(InterruptSignal())
                  : "view creation failed (1): " + VEL_ANSI(executor.getErrorMessage());
    // Children ended early may have left tasks the farm engine still holds.
    launcher.endLeftovers();
    VEL_ASSERT(!"view creation failed");
    std::cerr << "view creation failed (1).\n";
    return 1;
  }

  const AString filterExtension = options.adds.empty() ? AString(".txt") : AString();
  const bool packed = options.zip ? executor.zipActiveViews(outputText, filterExtension)
                                  : executor.moveActiveViews(outputText, filterExtension);
  progress.clear();
  // Interrupted while packing: the archive was abandoned or the files put
  // back, so nothing is delivered and the run ends as during extraction.
  if (!packed && InterruptRequested()) {
    outcome = InterruptMessage(InterruptSignal()) + ", while packing";
    VEL_ASSERT(!"view creation failed");
    std::cerr << "view creation failed (1).\n";
    return 1;
  }
  std::cout << "VLX file written: " << PathValue(outputText) << "\n";
  if (!packed) {
    outcome = "view creation failed (2): the views could not be packed or moved";
    VEL_ASSERT(!"view zip or move failed");
    std::cerr << "view creation failed (2).\n";
    return 1;
  }
  outcome = "succeeded";
  return 0;
}

// Writes the run's report, if one is asked for; a report that cannot be
// written is one warning line, and the run's outcome stays as it was.
void WriteReport(RunReport& report, const std::string& outcome, bool succeeded) {
  std::string error;
  if (!report.save(outcome, succeeded, error)) std::cerr << "warning: " << error << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  // No setlocale(): the program runs in the C locale on purpose. Narrow and
  // wide text convert as UTF-8 in core, options fold ASCII case only, and
  // numbers print with a point, whatever locale data a machine has.
  if (argc == 2 && std::string(argv[1]) == "--version") {
    std::cout << "VelExtracta " VEL_VERSION "\n";
    return 0;
  }
  if (argc == 2 && std::string(argv[1]) == "--help") {
    std::cout << kUsage << "\n" << kHelp;
    return 0;
  }
  const CommandLine options = ScanCommandLine(argc, argv);
  if (!options.enoughArguments) {
    std::cerr << kUsage;
    return 1;
  }

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

  const char* reportPath = std::getenv("VELTAR_EXTRACTA_REPORT");
  RunReport report(reportPath ? reportPath : "", "VelExtracta " VEL_VERSION);
  std::string outcome;
  try {
    const fs::path designPath = fs::u8path(argv[argc - 2]);
    const fs::path outputPath = fs::u8path(argv[argc - 1]);
    report.describe(Absolute(designPath).u8string(), Absolute(outputPath).u8string(),
                    launcher->kind(), launcher->slots());
    std::string reason;
    if (StatusOf(designPath, &reason).type() == fs::file_type::not_found) {
      VelDebug(1, L"mcm file %s: %s\n", AString(designPath.u8string()).c_str(),
               AString(reason).c_str());
      VEL_ASSERT(!"mcm file does not exist");
      const AString designText(designPath.u8string());
      std::cerr << "mcm file does not exist: " << PathValue(designText) << "\n";
      WriteReport(report, "mcm file does not exist", false);
      return 1;
    }
    // extracta runs inside the working directory, so every path it is handed
    // must hold from there: relative paths are resolved against this
    // program's directory before the run begins.
    const int code = RunExtraction(options, *launcher, report, Absolute(designPath),
                                   Absolute(outputPath), outcome);
    WriteReport(report, outcome, code == 0);
    return code;
  } catch (const std::exception& e) {
    // Unwinding has ended the children and removed the working directory.
    launcher->endLeftovers();
    std::cerr << e.what() << "\n";
    outcome = e.what();
  } catch (...) {
    launcher->endLeftovers();
    std::cerr << "the run ended on an unknown failure\n";
    outcome = "the run ended on an unknown failure";
  }
  WriteReport(report, outcome, false);
  return 1;
}
