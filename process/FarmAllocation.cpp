#include "process/FarmAllocation.h"

#include <algorithm>
#include <cctype>
#include <sstream>

namespace {

bool IsDigits(const std::string& text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

// A whole number of at most `most`; false for anything else (signs, blanks,
// numbers too large for any integer type).
bool ReadNumber(const std::string& text, uint64_t most, uint64_t& value) {
  if (!IsDigits(text)) return false;
  value = 0;
  for (const char c : text) {
    value = value * 10 + static_cast<uint64_t>(c - '0');
    if (value > most) return false;
  }
  return true;
}

// Splits at the separator where no bracket is open.
std::vector<std::string> SplitOutsideBrackets(const std::string& text, char separator) {
  std::vector<std::string> parts(1);
  int depth = 0;
  for (const char c : text) {
    if (c == '[') ++depth;
    if (c == ']') --depth;
    if (c == separator && depth == 0)
      parts.emplace_back();
    else
      parts.back() += c;
  }
  return parts;
}

// One bracketed range list, "1-3,07": every number in it, as text.
bool ExpandRanges(const std::string& ranges, std::vector<std::string>& numbers,
                  std::string& error) {
  std::istringstream list(ranges);
  std::string range;
  while (std::getline(list, range, ',')) {
    const std::size_t dash = range.find('-');
    const std::string first = range.substr(0, dash);
    const std::string last = dash == std::string::npos ? first : range.substr(dash + 1);
    uint64_t low = 0, high = 0;
    constexpr uint64_t kMostNumber = 999999999;
    if (!ReadNumber(first, kMostNumber, low) || !ReadNumber(last, kMostNumber, high) ||
        high < low || high - low >= 100000) {
      error = "\"" + range + "\" is not a range of node numbers";
      return false;
    }
    for (uint64_t n = low; n <= high; ++n) {
      std::string number = std::to_string(n);
      if (number.size() < first.size()) number.insert(0, first.size() - number.size(), '0');
      numbers.push_back(number);
    }
  }
  if (ranges.empty() || ranges.back() == ',') {
    error = "an empty range in \"[" + ranges + "]\"";
    return false;
  }
  return true;
}

// One name with any number of bracketed ranges, expanded left to right.
bool ExpandName(const std::string& name, std::vector<std::string>& hosts, std::string& error) {
  std::vector<std::string> expanded{""};
  std::size_t at = 0;
  while (at < name.size()) {
    const std::size_t open = name.find('[', at);
    const std::string text = name.substr(at, open - at);
    if (text.find(']') != std::string::npos) {
      error = "a \"]\" without its \"[\" in \"" + name + "\"";
      return false;
    }
    for (std::string& host : expanded) host += text;
    if (open == std::string::npos) break;
    const std::size_t close = name.find(']', open);
    if (close == std::string::npos) {
      error = "a \"[\" without its \"]\" in \"" + name + "\"";
      return false;
    }
    std::vector<std::string> numbers;
    if (!ExpandRanges(name.substr(open + 1, close - open - 1), numbers, error)) return false;
    std::vector<std::string> next;
    for (const std::string& host : expanded)
      for (const std::string& number : numbers) next.push_back(host + number);
    expanded.swap(next);
    at = close + 1;
  }
  if (name.empty()) {
    error = "an empty node name";
    return false;
  }
  hosts.insert(hosts.end(), expanded.begin(), expanded.end());
  return true;
}

bool AddSlots(std::vector<HostSlots>& allocation, const std::string& host, uint64_t slots) {
  if (slots == 0) return true;
  const auto known = std::find_if(allocation.begin(), allocation.end(),
                                  [&host](const HostSlots& entry) { return entry.host == host; });
  if (known != allocation.end())
    known->slots += static_cast<uint32_t>(slots);
  else
    allocation.push_back({host, static_cast<uint32_t>(slots)});
  return true;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

std::vector<std::string> Fields(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> fields;
  std::string field;
  while (in >> field) fields.push_back(field);
  return fields;
}

constexpr uint64_t kMostSlotsOfAHost = 1 << 20;

}  // namespace

bool ExpandSlurmHostList(const std::string& list, std::vector<std::string>& hosts,
                         std::string& error) {
  hosts.clear();
  for (const std::string& name : SplitOutsideBrackets(list, ','))
    if (!ExpandName(name, hosts, error)) return false;
  return true;
}

bool ExpandSlurmCpusPerNode(const std::string& counts, std::vector<uint32_t>& cpus,
                            std::string& error) {
  cpus.clear();
  std::istringstream list(counts);
  std::string item;
  while (std::getline(list, item, ',')) {
    // "4" or "4(x2)"
    std::string count = item, repeat = "1";
    const std::size_t open = item.find("(x");
    if (open != std::string::npos && item.back() == ')') {
      count = item.substr(0, open);
      repeat = item.substr(open + 2, item.size() - open - 3);
    }
    uint64_t value = 0, times = 0;
    if (!ReadNumber(count, kMostSlotsOfAHost, value) || value == 0 ||
        !ReadNumber(repeat, 100000, times) || times == 0) {
      error = "\"" + item + "\" is not a CPU count";
      return false;
    }
    cpus.insert(cpus.end(), static_cast<std::size_t>(times), static_cast<uint32_t>(value));
  }
  if (counts.empty() || counts.back() == ',') {
    error = "\"" + counts + "\" is not a list of CPU counts";
    return false;
  }
  return true;
}

bool SlurmAllocation(const std::string& nodeList, const std::string& cpusPerNode,
                     std::vector<HostSlots>& allocation, std::string& error) {
  std::vector<std::string> hosts;
  std::vector<uint32_t> cpus;
  if (!ExpandSlurmHostList(nodeList, hosts, error)) return false;
  if (!ExpandSlurmCpusPerNode(cpusPerNode, cpus, error)) return false;
  if (hosts.size() != cpus.size()) {
    error =
        std::to_string(hosts.size()) + " nodes but " + std::to_string(cpus.size()) + " CPU counts";
    return false;
  }
  allocation.clear();
  for (std::size_t i = 0; i < hosts.size(); ++i) AddSlots(allocation, hosts[i], cpus[i]);
  return true;
}

bool ReadLsfHostList(const std::string& text, std::vector<HostSlots>& allocation,
                     std::string& error) {
  allocation.clear();
  const std::vector<std::string> fields = Fields(text);
  if (fields.empty() || fields.size() % 2 != 0) {
    error = "\"" + text + "\" is not a list of hosts and their slots";
    return false;
  }
  for (std::size_t i = 0; i < fields.size(); i += 2) {
    uint64_t slots = 0;
    if (!ReadNumber(fields[i + 1], kMostSlotsOfAHost, slots)) {
      error = "\"" + fields[i + 1] + "\" is not a slot count of host " + fields[i];
      return false;
    }
    AddSlots(allocation, fields[i], slots);
  }
  return true;
}

bool ReadLsfHostFile(const std::string& text, std::vector<HostSlots>& allocation,
                     std::string& error) {
  allocation.clear();
  for (const std::string& line : Lines(text)) {
    const std::vector<std::string> fields = Fields(line);
    if (fields.empty()) continue;
    if (fields.size() != 1) {
      error = "\"" + line + "\" is not a host name";
      return false;
    }
    AddSlots(allocation, fields[0], 1);
  }
  return true;
}

bool ReadPeHostFile(const std::string& text, std::vector<HostSlots>& allocation,
                    std::string& error) {
  allocation.clear();
  for (const std::string& line : Lines(text)) {
    const std::vector<std::string> fields = Fields(line);
    if (fields.empty()) continue;
    uint64_t slots = 0;
    if (fields.size() < 2 || !ReadNumber(fields[1], kMostSlotsOfAHost, slots)) {
      error = "\"" + line + "\" is not a host and its slots";
      return false;
    }
    AddSlots(allocation, fields[0], slots);
  }
  return true;
}

std::vector<std::string> SlotHosts(const std::vector<HostSlots>& allocation) {
  std::vector<std::string> hosts;
  for (uint32_t round = 0;; ++round) {
    const std::size_t before = hosts.size();
    for (const HostSlots& entry : allocation)
      if (entry.slots > round) hosts.push_back(entry.host);
    if (hosts.size() == before) return hosts;
  }
}

bool ReadSlotCount(const std::string& text, uint32_t& slots, std::string& error) {
  uint64_t value = 0;
  if (!ReadNumber(text, kMostSlots, value) || value == 0) {
    error = "not a whole number from 1 to " + std::to_string(kMostSlots);
    return false;
  }
  slots = static_cast<uint32_t>(value);
  return true;
}

bool SplitShellWords(const std::string& text, std::vector<std::string>& words, std::string& error) {
  words.clear();
  std::string word;
  bool inWord = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == ' ' || c == '\t' || c == '\n') {
      if (inWord) words.push_back(word);
      word.clear();
      inWord = false;
      continue;
    }
    inWord = true;
    if (c == '\\') {
      if (++i == text.size()) {
        error = "it ends in a lone backslash";
        return false;
      }
      if (text[i] != '\n') word += text[i];  // a backslash and a line end join lines
      continue;
    }
    if (c == '\'') {
      const std::size_t close = text.find('\'', i + 1);
      if (close == std::string::npos) {
        error = "a single quote is not closed";
        return false;
      }
      word += text.substr(i + 1, close - i - 1);
      i = close;
      continue;
    }
    if (c == '"') {
      for (++i;; ++i) {
        if (i == text.size()) {
          error = "a double quote is not closed";
          return false;
        }
        if (text[i] == '"') break;
        if (text[i] == '\\' && i + 1 < text.size() &&
            std::string("$`\"\\\n").find(text[i + 1]) != std::string::npos) {
          if (text[++i] != '\n') word += text[i];
          continue;
        }
        word += text[i];
      }
      continue;
    }
    word += c;
  }
  if (inWord) words.push_back(word);
  return true;
}

std::string ShellQuoted(const std::string& word) {
  const bool plain = !word.empty() && std::all_of(word.begin(), word.end(), [](unsigned char c) {
    return std::isalnum(c) ||
           std::string("_@%+=:,./-").find(static_cast<char>(c)) != std::string::npos;
  });
  if (plain) return word;
  std::string quoted = "'";
  for (const char c : word) {
    if (c == '\'')
      quoted += "'\\''";
    else
      quoted += c;
  }
  return quoted + "'";
}
