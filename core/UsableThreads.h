#pragma once
// The hardware threads this process may actually use: on a farm a job is
// given a few processors of a large machine (an affinity mask) or a share of
// its time (a control group's CPU quota), and counting every processor of the
// machine would start more children than the job may run.

#include <string>

// Applies a CPU quota to a count of usable processors (taken as 1 when 0):
//   cpuMax      the text of a version 2 control group's cpu.max, "max PERIOD"
//               (no quota) or "QUOTA PERIOD" in microseconds; empty: none
//   cfsQuota    a version 1 control group's cpu.cfs_quota_us ("-1": none)
//   cfsPeriod   its cpu.cfs_period_us
// A quota allows QUOTA / PERIOD processors, rounded up. The result is the
// smallest of the count and the quotas given, at least 1. Texts that are no
// quota (empty, unreadable, zero) leave the count as it is.
unsigned UsableThreads(unsigned processors, const std::string& cpuMax,
                       const std::string& cfsQuota = "", const std::string& cfsPeriod = "");

// This process's usable hardware threads, at least 1: on Linux the
// processors of its affinity mask under its control groups' CPU quotas, on
// Windows the processors of its affinity mask; elsewhere every processor.
unsigned VeltUsableThreads();
