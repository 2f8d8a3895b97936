#include "core/UsableThreads.h"

#include <algorithm>
#include <cstdint>
#include <sstream>

namespace {

// A positive whole number and nothing after it but white space; 0 otherwise.
uint64_t PositiveNumber(const std::string& text) {
  std::istringstream in(text);
  int64_t value = 0;
  std::string rest;
  if (!(in >> value) || (in >> rest) || value <= 0) return 0;
  return static_cast<uint64_t>(value);
}

// QUOTA / PERIOD rounded up, at least 1; 0 for no quota.
uint64_t QuotaThreads(uint64_t quota, uint64_t period) {
  if (quota == 0 || period == 0) return 0;
  return std::max<uint64_t>(1, (quota + period - 1) / period);
}

}  // namespace

unsigned UsableThreads(unsigned processors, const std::string& cpuMax, const std::string& cfsQuota,
                       const std::string& cfsPeriod) {
  uint64_t usable = std::max(1u, processors);
  std::istringstream fields(cpuMax);
  std::string quota, period, rest;
  if (fields >> quota >> period && !(fields >> rest)) {
    const uint64_t allowed = QuotaThreads(PositiveNumber(quota), PositiveNumber(period));
    if (allowed > 0) usable = std::min(usable, allowed);
  }
  const uint64_t allowed = QuotaThreads(PositiveNumber(cfsQuota), PositiveNumber(cfsPeriod));
  if (allowed > 0) usable = std::min(usable, allowed);
  return static_cast<unsigned>(usable);
}
