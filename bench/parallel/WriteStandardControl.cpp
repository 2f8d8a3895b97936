// write-standard-control CONTROL_FILE [VIEW_DIR]
//
// Writes the control file that asks one extracta process for every view of
// the default selection, as the one-process path writes it, and prints the
// view file paths in the order of its blocks, one a line. bench/run runs the
// stand-in extractor on it: the single-process run the default run's split is
// compared with.

#include <fstream>
#include <iostream>
#include <vector>

#include "core/AString.h"
#include "core/LongFileName.h"
#include "views/ExtractaViewControl.h"
#include "views/ViewTypes.h"

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::cerr << "usage: write-standard-control CONTROL_FILE [VIEW_DIR]\n";
    return 2;
  }
  std::ofstream control(argv[1], std::ios::binary | std::ios::trunc);
  if (!WriteControlFile(control, kStandardViews, {}) || !control.flush()) {
    std::cerr << "cannot write " << argv[1] << "\n";
    return 1;
  }
  LongFileName viewDir(AString(argc == 3 ? argv[2] : ""));
  viewDir.MakeItDirectory();
  std::vector<ActiveView> views;
  CollectViewFiles(kStandardViews, viewDir, views);
  for (const ActiveView& view : views) std::cout << VEL_ANSI(view.path) << "\n";
  return 0;
}
