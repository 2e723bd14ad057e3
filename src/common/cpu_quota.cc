#include "common/cpu_quota.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

namespace kerrow {
namespace {

// A whole positive decimal number and nothing else; 0 when the word is not one.
uint64_t PositiveNumber(const std::string& word) {
  if (word.empty() || word[0] < '0' || word[0] > '9') return 0;
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(word.c_str(), &end, 10);
  if (errno != 0 || end == nullptr || *end != '\0') return 0;
  return value;
}

uint32_t CoresFromQuota(uint64_t quota, uint64_t period) {
  if (quota == 0 || period == 0) return 0;
  const uint64_t cores = quota / period + (quota % period != 0 ? 1 : 0);
  const uint64_t most = std::numeric_limits<uint32_t>::max();
  return static_cast<uint32_t>(cores < most ? cores : most);
}

// The first line of a file, without its line end; empty when unreadable.
std::string FirstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string OnlyWord(const std::string& text) {
  std::istringstream words(text);
  std::string word;
  std::string extra;
  if (!(words >> word) || (words >> extra)) return std::string();
  return word;
}

}  // namespace

uint32_t CoresAllowedByCpuMax(const std::string& cpu_max) {
  std::istringstream words(cpu_max);
  std::string quota;
  std::string period;
  std::string extra;
  if (!(words >> quota >> period) || (words >> extra)) return 0;
  return CoresFromQuota(PositiveNumber(quota), PositiveNumber(period));
}

uint32_t CoresAllowedByCfsQuota(const std::string& quota, const std::string& period) {
  return CoresFromQuota(PositiveNumber(OnlyWord(quota)), PositiveNumber(OnlyWord(period)));
}

uint32_t CpuQuotaCoresUnder(const std::string& cgroup_root) {
  const uint32_t v2 = CoresAllowedByCpuMax(FirstLine(cgroup_root + "/cpu.max"));
  if (v2 > 0) return v2;
  // cgroup v1 mounts the cpu controller under either name.
  for (const char* controller : {"/cpu", "/cpu,cpuacct"}) {
    const std::string dir = cgroup_root + controller;
    const uint32_t v1 = CoresAllowedByCfsQuota(FirstLine(dir + "/cpu.cfs_quota_us"),
                                               FirstLine(dir + "/cpu.cfs_period_us"));
    if (v1 > 0) return v1;
  }
  return 0;
}

uint32_t CpuQuotaCores() {
#ifdef __linux__
  return CpuQuotaCoresUnder("/sys/fs/cgroup");
#else
  return 0;
#endif
}

}  // namespace kerrow
