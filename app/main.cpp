// VelExtracta: turns a package design into text views through extracta and
// delivers them as one archive (the VLX file) or as files in a directory.
//
//   VelExtracta [-z] [-cell] [-n NET,NET...] [-add FILE,FILE...] DESIGN.mcm OUTPUT
//
// Standard output carries one line after packaging, standard error one line
// per failure; the exit code is 0 when the views were created and packed, 1
// otherwise.

#include <clocale>
#include <csignal>
#include <iostream>
#include <vector>

#include <boost/filesystem.hpp>

#include "app/CommandLine.h"
#include "core/AString.h"
#include "core/Interrupt.h"
#include "core/VelAssert.h"
#include "executor/ExtractaExecutor.h"
#include "views/ViewTypes.h"

#define VEL_ASSERT_SOURCE "VelExtracta"

namespace fs = boost::filesystem;

namespace {

bool Exists(const fs::file_status& status) {
  return status.type() != fs::status_error && status.type() != fs::file_not_found;
}

// The outcome lines carry the address of a path's wide text, not the text
// itself: that is the program's established output, kept as it is.
const void* PathValue(const AString& path) { return static_cast<const void*>(path.c_str()); }

// One run from an existing design: create the views in a working directory,
// pack or move them, report. The executor removes its working directory when
// this returns.
int RunExtraction(const CommandLine& options, const fs::path& designPath,
                  const fs::path& outputPath) {
  const AString designText(designPath.string());
  const AString outputText(outputPath.string());

  ExtractaExecutor executor;
  const ViewSet views = options.standardViews ? kStandardViews : kCellViews;
  // Inside an output directory the working directory sits on the same file
  // system as the views' destination, so moving them is a rename.
  const fs::path base =
      fs::is_directory(fs::status(outputPath)) ? outputPath : designPath.parent_path();

  std::vector<ActiveView> activeViews;
  if (options.zip) executor.packWhileExtracting();
  const bool created = executor.createExtractaViews(designText, AString(base.string()), views,
                                                    options.nets, activeViews);
  if (created && !options.adds.empty()) executor.addFilesToWorkingDir(options.adds);

  // An interrupted run delivers nothing, whatever its children had finished.
  if (!created || InterruptRequested()) {
    VEL_ASSERT(!"view creation failed");
    std::cerr << "view creation failed (1).\n";
    return 1;
  }

  const AString filterExtension = options.adds.empty() ? AString(".txt") : AString();
  const bool packed = options.zip ? executor.zipActiveViews(outputText, filterExtension)
                                  : executor.moveActiveViews(outputText, filterExtension);
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
  std::setlocale(LC_ALL, "");
  InstallInterruptHandlers();
  // A write past the file size limit (a quota, a full volume set up as a
  // limit) must fail like any other failed write, so that the run ends
  // through its failure path and removes its working directory, instead of
  // the signal ending the program on the spot.
  std::signal(SIGXFSZ, SIG_IGN);

  const CommandLine options = ScanCommandLine(argc, argv);
  if (!options.enoughArguments) return 1;

  const fs::path designPath(argv[argc - 2]);
  const fs::path outputPath(argv[argc - 1]);
  if (!Exists(fs::status(designPath))) {
    VEL_ASSERT(!"mcm file does not exist");
    const AString designText(designPath.string());
    std::cerr << "mcm file does not exist: " << PathValue(designText) << "\n";
    return 1;
  }
  // extracta runs inside the working directory, so every path it is handed
  // must hold from there: relative paths are resolved against this program's
  // directory before the run begins.
  return RunExtraction(options, fs::absolute(designPath), fs::absolute(outputPath));
}
