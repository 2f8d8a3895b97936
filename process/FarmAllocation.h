#pragma once
// What a farm engine tells a job about its allocation, read as pure text: the
// hosts and how many slots the job holds on each. Each reader returns false
// with the reason in `error` when the text is not what the engine writes.
//
// Also the words of a command prefix, split as a POSIX shell splits them, and
// a word quoted for a shell that splits it again on a node.

#include <cstdint>
#include <string>
#include <vector>

struct HostSlots {
  std::string host;
  uint32_t slots = 0;
  bool operator==(const HostSlots& other) const {
    return host == other.host && slots == other.slots;
  }
};

// Slurm's host list (SLURM_JOB_NODELIST): names separated by commas, each with
// any number of bracketed ranges, "n[1-3,7]" or "rack[1-2]-cpu[01-02]"; a
// range keeps the zero padding of its numbers.
bool ExpandSlurmHostList(const std::string& list, std::vector<std::string>& hosts,
                         std::string& error);

// Slurm's CPUs per node (SLURM_JOB_CPUS_PER_NODE), compressed as
// "4(x2),2": one count per node of the host list, in its order.
bool ExpandSlurmCpusPerNode(const std::string& counts, std::vector<uint32_t>& cpus,
                            std::string& error);

// The two together: each node with its CPUs.
bool SlurmAllocation(const std::string& nodeList, const std::string& cpusPerNode,
                     std::vector<HostSlots>& allocation, std::string& error);

// LSF's LSB_MCPU_HOSTS: "hostA 4 hostB 2", a host and its slots in turn.
bool ReadLsfHostList(const std::string& text, std::vector<HostSlots>& allocation,
                     std::string& error);

// LSF's LSB_DJOB_HOSTFILE: one line per slot, naming its host; a host's lines
// need not follow each other. Hosts keep the order of their first line.
bool ReadLsfHostFile(const std::string& text, std::vector<HostSlots>& allocation,
                     std::string& error);

// Grid Engine's PE_HOSTFILE: per line a host, its slots, its queue and its
// processor range.
bool ReadPeHostFile(const std::string& text, std::vector<HostSlots>& allocation,
                    std::string& error);

// The host of each slot, the hosts taken in turn while they have slots left
// ("a 3, b 1" gives a, b, a, a), so that fewer children than slots spread
// over the hosts.
std::vector<std::string> SlotHosts(const std::vector<HostSlots>& allocation);

// The most children a run lets run at once.
constexpr uint32_t kMostSlots = 1024;

// VELTAR_EXTRACTA_SLOTS: a whole number from 1 to kMostSlots, digits only.
bool ReadSlotCount(const std::string& text, uint32_t& slots, std::string& error);

// A command prefix split into words as a POSIX shell splits a command: blanks,
// tabs and line ends separate; single quotes keep everything up to the next
// one; double quotes keep everything but a backslash before $, `, ", \ or a
// line end; a backslash outside quotes keeps the next character. Nothing is
// expanded. An unclosed quote or a final lone backslash is an error.
bool SplitShellWords(const std::string& text, std::vector<std::string>& words, std::string& error);

// The word as a POSIX shell reads it back whole: as it is when it holds only
// characters no shell treats specially, else in single quotes.
std::string ShellQuoted(const std::string& word);
