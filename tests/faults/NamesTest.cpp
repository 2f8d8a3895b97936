// The fault matrix, awkward names: paths and net names with blanks, quotes,
// commas, leading dashes and non-ASCII characters.

#include "tests/faults/FaultMatrix.h"

using namespace veltest;

// Row: design, output and added paths with blanks, quotes, commas, leading
//   dashes and non-ASCII characters
// Outcome: the run succeeds and every path reaches extracta and the archive
//   unchanged: each is handed over in double quotes, a double quote inside
//   a path escaped so that the child's argument split gives it back. Only
//   the add list is split at commas, so a file whose name holds a comma
//   cannot be added: its pieces name no file and are skipped.
TEST_F(NameFaults, PathsWithAwkwardCharacters) {
  // A backslash before a quote, and one at the end of the design's name,
  // test the escapes of the child's argument split where names hold them.
  const std::string odd = dir / FileName("-odd dir, \\\"q\" 's' ü");
  ASSERT_TRUE(MakeDirectory(odd));
  const std::string designName = FileName("-my design, \"v2\" é.mcm\\");
  const std::string added = FileName("-notes \"a\" 's' ü.csv");
  WriteFile(odd + "/" + designName, ReadFile(design()));
  WriteFile(odd + "/" + added, "net,length\n");
  WriteFile(odd + "/x,y.csv", "never packed\n");

  // Relative paths, from inside the odd directory.
  RunOptions inside;
  inside.cwd = odd;
  const std::string archiveName = FileName("-out, \"x\" ü.vlx");
  ProgramRun zip({"-z", "-add", added + ",x,y.csv", designName, archiveName}, inside);
  ExpectCleanSuccess(zip);
  EXPECT_EQ(WorkingDirs(odd), std::vector<std::string>{});
  const std::vector<std::string> names = ArchiveNames(odd + "/" + archiveName);
  ASSERT_FALSE(names.empty());
  for (const std::string& name : names)
    EXPECT_EQ(name.rfind(WithoutRoot(odd) + "/extract", 0), 0u) << name;
  const std::vector<std::string> leaves = ArchiveLeaves(odd + "/" + archiveName);
  for (const std::string& leaf : {std::string("conn.txt"), std::string("layer.txt"), added})
    EXPECT_TRUE(std::binary_search(leaves.begin(), leaves.end(), leaf)) << leaf;
  EXPECT_FALSE(std::binary_search(leaves.begin(), leaves.end(), "x,y.csv"));
  EXPECT_EQ(ArchiveEntry(odd + "/" + archiveName, added), "net,length\n");

  // Moved into an odd output directory, given by absolute paths.
  const std::string views = dir / FileName("-views, \"q\" ü");
  ASSERT_TRUE(MakeDirectory(views));
  ProgramRun move({"-cell", odd + "/" + designName, views});
  ExpectCleanSuccess(move);
  EXPECT_EQ(ListDir(views), kCellFiles);
  EXPECT_EQ(ReadFile(views + "/layer.txt").rfind("A!", 0), 0u);
}

// Row: net names with blanks, quotes, commas and non-ASCII characters
// Outcome: the run succeeds; each selected name reaches extracta's filter
//   byte for byte (inside single quotes, a quote in the name left as it is)
//   and selects exactly its records, in the survey and the cell views alike.
//   The net list is split at commas, so a net whose name holds a comma
//   cannot be selected; its records still reach conn.txt by the remainder.
TEST_F(NameFaults, NetNamesWithAwkwardCharacters) {
  // Records per net; "a,b" is one net whose name holds a comma.
  const std::vector<std::pair<std::string, int>> nets = {
      {"VDD CORE", 6}, {"GND's", 5}, {"\"CLK\"", 4}, {"Ünïcode", 3}, {"a,b", 2}, {"plain", 1}};
  const char* classes[] = {"ETCH", "PIN", "VIA CLASS", "CONDUCTOR"};
  std::vector<NetClass> records;
  std::vector<std::string> all, selected;  // the NET_NAME values, sorted
  for (const auto& [net, count] : nets) {
    for (int i = 0; i < count; ++i) records.emplace_back(net, classes[i % 4]);
    all.insert(all.end(), count, net);
    if (count > 2) selected.insert(selected.end(), count, net);
  }
  WithConnectivity(design(), design(), records);
  std::sort(all.begin(), all.end());
  std::sort(selected.begin(), selected.end());
  const auto netNames = [](const std::string& viewFile) {
    std::vector<std::string> names = FieldValues(ReadFile(viewFile), "NET_NAME");
    std::sort(names.begin(), names.end());
    return names;
  };

  const std::string selection = "VDD CORE,GND's,\"CLK\",Ünïcode,a,b";
  const std::string standard =
      RunKeeping(dir.path(), {"-n", selection, "-z", design(), dir / "std.vlx"}).workDir;
  ASSERT_FALSE(standard.empty());
  EXPECT_EQ(netNames(standard + "connnets.txt"), selected);
  EXPECT_EQ(SortedRecords(ReadFile(standard + "conn.txt")),
            SortedRecords(PlainConnectivity(design(), dir.path())));
  EXPECT_EQ(netNames(standard + "conn.txt"), all);

  const std::string cell =
      RunKeeping(dir.path(), {"-cell", "-n", selection, "-z", design(), dir / "c.vlx"}).workDir;
  ASSERT_FALSE(cell.empty());
  EXPECT_EQ(netNames(cell + "cconn.txt"), selected);
}

// Row: 12 or more nets on the command line
// Outcome: the run succeeds and is not restricted to them at all, as with no
//   net option: every net's records are surveyed and extracted. Up to 11
//   nets restrict the run to those nets.
// Proof: tests/views/ViewsTest.cpp ExtractaViewDefTest.NetFiltersFollowTheCountOfNets
