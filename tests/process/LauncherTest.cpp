// How children start on a farm: the allocation each engine announces, read as
// the engine writes it; the slots taken host by host; the choice of launcher
// from the settings, with every bad setting refused in one line; the exact
// command each engine's launcher gets; and the quoting that brings every
// argument whole through a command line and through a shell on a node.

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/Process.h"
#include "process/FarmAllocation.h"
#include "process/Launcher.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace veltest;
using Hosts = std::vector<HostSlots>;

TEST(FarmAllocation, EachEngineAnnouncesHostsAndSlotsItsOwnWay) {
  enum Reader { kSlurm, kLsfList, kLsfFile, kPeFile };
  const struct {
    Reader reader;
    std::string text, cpus;  // cpus: Slurm's CPUs per node
    Hosts hosts;             // empty: refused
  } rows[] = {
      {kSlurm, "n[1-2]", "2(x2)", {{"n1", 2}, {"n2", 2}}},
      {kSlurm, "node07", "32", {{"node07", 32}}},
      {kSlurm, "c[08-10],gpu1", "4(x2),2,8", {{"c08", 4}, {"c09", 4}, {"c10", 2}, {"gpu1", 8}}},
      {kSlurm, "r[1-2]-n[1,3]", "1(x4)", {{"r1-n1", 1}, {"r1-n3", 1}, {"r2-n1", 1}, {"r2-n3", 1}}},
      {kSlurm, "a[9-11]b", "3,2,1", {{"a9b", 3}, {"a10b", 2}, {"a11b", 1}}},
      {kSlurm, "n[1-3]", "2(x2)", {}},  // fewer counts than nodes
      {kSlurm, "n[1-2", "2(x2)", {}},   // unclosed bracket
      {kSlurm, "n[3-1]", "1", {}},      // a range backwards
      {kSlurm, "n[1-2]", "2(x0)", {}},  // no repetition
      {kSlurm, "n1,", "1", {}},         // an empty name
      {kSlurm, "n1", "x", {}},          // not a count
      {kLsfList, "hostA 4 hostB 2", "", {{"hostA", 4}, {"hostB", 2}}},
      {kLsfList, "hostA 1 hostB 2 hostA 1", "", {{"hostA", 2}, {"hostB", 2}}},
      {kLsfList, "hostA 4 hostB", "", {}},
      {kLsfList, "hostA four", "", {}},
      {kLsfFile, "hostA\nhostA\nhostB\r\nhostA\n\n", "", {{"hostA", 3}, {"hostB", 1}}},
      {kLsfFile, "hostA 2\n", "", {}},
      {kPeFile, "n1 4 all.q@n1 UNDEFINED\nn2 2 all.q@n2 <NULL>\n", "", {{"n1", 4}, {"n2", 2}}},
      {kPeFile, "n1 -2 all.q@n1 UNDEFINED\n", "", {}},
      {kPeFile, "n1\n", "", {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text + " / " + row.cpus);
    Hosts hosts;
    std::string error;
    bool read = false;
    switch (row.reader) {
      case kSlurm:
        read = SlurmAllocation(row.text, row.cpus, hosts, error);
        break;
      case kLsfList:
        read = ReadLsfHostList(row.text, hosts, error);
        break;
      case kLsfFile:
        read = ReadLsfHostFile(row.text, hosts, error);
        break;
      case kPeFile:
        read = ReadPeHostFile(row.text, hosts, error);
        break;
    }
    EXPECT_EQ(read, !row.hosts.empty()) << error;
    if (read) {
      EXPECT_EQ(hosts, row.hosts);
    } else {
      EXPECT_FALSE(error.empty());
    }
  }
}

TEST(FarmAllocation, SlotCountIsAWholeNumberWithinReason) {
  const std::vector<std::pair<std::string, uint32_t>> rows = {
      {"1", 1},    {"4", 4},   {"1024", 1024}, {"0", 0},    {"-2", 0},
      {"four", 0}, {"4.0", 0}, {" 4", 0},      {"1025", 0}, {"18446744073709551617", 0},
      {"", 0}};
  for (const auto& [text, expected] : rows) {
    uint32_t slots = 0;
    std::string error;
    EXPECT_EQ(ReadSlotCount(text, slots, error), expected != 0) << text;
    if (expected) {
      EXPECT_EQ(slots, expected) << text;
    }
  }
}

// Words as a POSIX shell splits them, and back through a shell quoted.
TEST(ShellWords, SplitAsAShellAndQuotedForOne) {
  const struct {
    std::string text;
    std::vector<std::string> words;
    bool splits;
  } rows[] = {
      {"bsub -K -q short", {"bsub", "-K", "-q", "short"}, true},
      {"  ssh\tnode7 \n", {"ssh", "node7"}, true},
      {"wrap 'a b' \"c d\" e\\ f", {"wrap", "a b", "c d", "e f"}, true},
      {"x 'it'\\''s' \"say \\\"hi\\\" \\$HOME \\n\"", {"x", "it's", "say \"hi\" $HOME \\n"}, true},
      {"x '' \"\"", {"x", "", ""}, true},
      {"a$HOME`b`*", {"a$HOME`b`*"}, true},  // nothing is expanded
      {"x 'a\\", {}, false},
      {"x \"a", {}, false},
      {"x a\\", {}, false},
  };
  for (const auto& row : rows) {
    std::vector<std::string> words;
    std::string error;
    ASSERT_EQ(SplitShellWords(row.text, words, error), row.splits) << row.text;
    if (row.splits) {
      EXPECT_EQ(words, row.words) << row.text;
    }
  }

  const std::vector<std::string> awkward = {
      "plain", "/a b/c\"d.mcm", "it's", "", "$HOME", "`id`", "a\\b", "*", "-k", "x;y|z&", "\t\n"};
  std::string line;
  for (const std::string& word : awkward) line += ShellQuoted(word) + " ";
  std::vector<std::string> back;
  std::string error;
  ASSERT_TRUE(SplitShellWords(line, back, error)) << error;
  EXPECT_EQ(back, awkward);
  EXPECT_EQ(ShellQuoted("/opt/bin/extracta-sim"), "/opt/bin/extracta-sim");
  if (kOnWindows) return;
  // A real shell on a node reads them back the same.
  const RunResult shell = RunProgram({"/bin/sh", "-c", "printf '%s|' " + line});
  std::string expected;
  for (const std::string& word : awkward) expected += word + "|";
  EXPECT_EQ(shell.out, expected);
}

TEST(ShellWords, QuotedArgumentsSurviveTheCommandLineSplit) {
  for (const std::string word :
       {"plain", "a b", "", "c\"d", "e\\", "f\\\"g", "h\\\\ i", "\"", "\t"})
    EXPECT_THAT(VeltSplitCommandLine("x " + VeltQuoteArgument(word) + " y"),
                ::testing::ElementsAre("x", word, "y"))
        << word;
}

// The world a launcher is chosen in: the variables given ("NAME=value;..."),
// the host files given, and programs found only when listed.
struct FakeWorld {
  std::map<std::string, std::string> variables,
      files = {{"/hf", "hostA\nhostB\nhostA\n"}, {"/pe", "n1 2 q@n1 UNDEFINED\nn2 2 q@n2 x\n"}};
  bool engines = true;

  explicit FakeWorld(const std::string& settings) {
    std::istringstream list(settings);
    for (std::string item; std::getline(list, item, ';');)
      variables[item.substr(0, item.find('='))] = item.substr(item.find('=') + 1);
  }

  LaunchEnvironment Environment() const {
    LaunchEnvironment environment;
    environment.variable = [this](const char* name) {
      const auto found = variables.find(name);
      return found == variables.end() ? nullptr : found->second.c_str();
    };
    environment.readFile = [this](const std::string& path, std::string& text) {
      const bool known = files.count(path) > 0;
      if (known) text = files.at(path);
      return known;
    };
    environment.program = [](const std::string& name, std::string& path, std::string& why) {
      const std::set<std::string> known = {"srun", "squeue", "scancel", "blaunch", "qrsh", "wrap"};
      path = "/opt/farm/" + name;
      why = "No such file or directory";
      return known.count(name) > 0;
    };
    environment.localSlots = 3;
    environment.enginesAvailable = engines;
    return environment;
  }
};

// A farm engine named where its job is not, or with an allocation that
// cannot be read, is refused in one line that names the setting and says
// why (the prefix's and the slots' lines are the fault matrix's).
TEST(ChooseLauncher, EnginesOutsideTheirJobAreRefusedInOneLine) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"VELTAR_EXTRACTA_LAUNCHER=slurm",
       "slurm: not inside a Slurm allocation (SLURM_JOB_ID is not set)"},
      {"VELTAR_EXTRACTA_LAUNCHER=slurm;SLURM_JOB_ID=7;SLURM_JOB_NODELIST=n[1-2];"
       "SLURM_JOB_CPUS_PER_NODE=2",
       "slurm: the allocation cannot be read (SLURM_JOB_NODELIST=n[1-2], "
       "SLURM_JOB_CPUS_PER_NODE=2): 2 nodes but 1 CPU counts"},
      {"VELTAR_EXTRACTA_LAUNCHER=lsf", "lsf: not inside an LSF job (LSB_JOBID is not set)"},
      {"VELTAR_EXTRACTA_LAUNCHER=lsf;LSB_JOBID=3;LSB_DJOB_HOSTFILE=/nope",
       "lsf: the host file /nope (LSB_DJOB_HOSTFILE) cannot be read"},
      {"VELTAR_EXTRACTA_LAUNCHER=sge;JOB_ID=5",
       "sge: not inside a Grid Engine parallel job (PE_HOSTFILE is not set)"},
  };
  for (const auto& [settings, error] : rows) {
    std::string said;
    EXPECT_EQ(ChooseLauncher(FakeWorld(settings).Environment(), said), nullptr) << settings;
    EXPECT_EQ(said, "VELTAR_EXTRACTA_LAUNCHER=" + error);
  }
}

// Which launcher each setting gives, how many children it runs at once, on
// which host each slot lies (slots 0, 1, ...), and the command that starts a
// child on slot 1 (its words joined by "|").
TEST(ChooseLauncher, EachEngineStartsChildrenOnTheSlotsOfItsJob) {
  const std::vector<std::string> command = {"/x/extracta", "-k", "/d/a b\"c.mcm"};
  const std::string quoted = "/x/extracta|-k|'/d/a b\"c.mcm'";
  const struct {
    std::string settings, kind;
    uint32_t slots;
    std::string slotHosts, commandOnSlot1;
  } rows[] = {
      {"", "", 3, " ", ""},
      {"VELTAR_EXTRACTA_LAUNCHER=  ;VELTAR_EXTRACTA_SLOTS=6", "", 6, "", ""},
      {"VELTAR_EXTRACTA_LAUNCHER=slurm;SLURM_JOB_ID=42;SLURM_JOB_NODELIST=n[1-2];"
       "SLURM_JOB_CPUS_PER_NODE=3,1",
       "slurm", 4, "n1 n2 n1 n1 n1",
       "/opt/farm/srun|--jobid=42|--nodes=1|--ntasks=1|--cpus-per-task=1|--exact|--overlap|"
       "--nodelist=n2|--export=ALL|--job-name=|--quiet|--quit-on-interrupt|/x/extracta|-k|"
       "/d/a b\"c.mcm"},
      {"VELTAR_EXTRACTA_LAUNCHER=lsf;LSB_JOBID=9;LSB_MCPU_HOSTS=hostA 1 hostB 2;"
       "VELTAR_EXTRACTA_SLOTS=2",
       "lsf", 2, "hostA hostB hostB hostA", "/opt/farm/blaunch|hostB|" + quoted},
      {"VELTAR_EXTRACTA_LAUNCHER=lsf;LSB_JOBID=9;LSB_DJOB_HOSTFILE=/hf", "lsf", 3,
       "hostA hostB hostA", "/opt/farm/blaunch|hostB|" + quoted},
      {"VELTAR_EXTRACTA_LAUNCHER=sge;JOB_ID=5;PE_HOSTFILE=/pe;NSLOTS=3", "sge", 3, "n1 n2 n1 n2",
       "/opt/farm/qrsh|-inherit|-V|-cwd|n2|" + quoted},
      {"VELTAR_EXTRACTA_LAUNCHER=wrap --queue 'short jobs'", "prefix", 3, "",
       "/opt/farm/wrap|--queue|short jobs|/x/extracta|-k|/d/a b\"c.mcm"},
      {"VELTAR_EXTRACTA_LAUNCHER=shell:wrap node7", "prefix", 3, "",
       "/opt/farm/wrap|node7|" + quoted},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.settings);
    std::string error;
    const auto launcher = ChooseLauncher(FakeWorld(row.settings).Environment(), error);
    ASSERT_NE(launcher, nullptr) << error;
    EXPECT_EQ(launcher->kind(), row.kind);
    EXPECT_EQ(launcher->slots(), row.slots);
    std::string hosts;
    const std::size_t shown = std::count(row.slotHosts.begin(), row.slotHosts.end(), ' ') + 1;
    for (uint32_t slot = 0; slot < shown; ++slot)
      hosts += (slot ? " " : "") + launcher->slotHost(slot);
    EXPECT_EQ(hosts, row.slotHosts);
    if (row.kind.empty()) continue;
    std::string joined;
    for (const std::string& word : launcher->commandOn(1, command))
      // A Slurm run names its steps apart from any other run's.
      joined += (joined.empty() ? "" : "|") +
                (word.rfind("--job-name=extracta-", 0) == 0 ? "--job-name=" : word);
    EXPECT_EQ(joined, row.commandOnSlot1);
  }
}

}  // namespace
