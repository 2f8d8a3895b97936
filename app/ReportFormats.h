#pragma once
// The report of one run as data, and the two forms it is written in: a trace
// in the Trace Event format (for Perfetto and the browsers' trace viewers)
// and a self-contained page that draws the run's timeline (no script, style,
// font or image from elsewhere: it works offline from a file).
//
// Times are microseconds since 1970 (UTC), the clock every child's own log
// keeps too, so that the two can be laid side by side.

#include <cstdint>
#include <string>
#include <vector>

struct ReportChild {
  std::string label;  // view and net part: "layer", "conn0_GND_PIN", "connremainder"
  std::string views;  // the view types it writes, joined by "+"
  std::string controlFile;
  std::vector<std::string> outputFiles;
  uint32_t slot = 0;
  std::string node;  // empty: this machine
  int processId = 0;
  int64_t startUs = 0, endUs = 0;
  bool ended = false;
  int exitCode = 0;      // 0, the code it failed with, or kEndedByRun
  uint64_t bytes = 0;    // of its view files
  int64_t records = -1;  // S records in them; -1: not known
};

struct ReportStep {
  std::string name;  // "survey", "merge", "packing", "delivery"
  int64_t startUs = 0, endUs = 0;
};

struct RunRecord {
  std::string version;
  std::string design, destination;
  std::string outcome;  // "succeeded", or what ended the run
  bool succeeded = false;
  std::string launcher;  // "" (this machine), "slurm", "lsf", "sge", "prefix"
  uint32_t slots = 1;
  int64_t startUs = 0, endUs = 0;
  uint64_t peakMemoryBytes = 0;
  std::vector<ReportChild> children;  // in the order they started
  std::vector<ReportStep> steps;
};

// The children's summed time, in microseconds.
int64_t ChildrenMicroseconds(const RunRecord& run);

// The lane a child is drawn in: its node and slot ("slot 0", "n1 slot 2").
std::string LaneName(const ReportChild& child);

// {"traceEvents": [...], ...}: one complete event ("ph": "X") per child and
// per step, metadata events naming the lanes (a process per node, a thread
// per slot; the run's own steps on a lane of their own).
std::string TraceJson(const RunRecord& run);

// The page: the timeline, the run's summary and a table of the children.
std::string ReportPage(const RunRecord& run);
