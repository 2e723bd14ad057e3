#ifndef KERROW_COMMON_CPU_QUOTA_H_
#define KERROW_COMMON_CPU_QUOTA_H_

// How many cores a CPU-time quota allows. A container started with a CPU
// limit (docker --cpus, a systemd CPUQuota) still has every core of the
// machine in its affinity mask; what limits it is a quota of CPU time per
// period, and threads beyond the quota only take turns inside it.

#include <cstdint>
#include <string>

namespace kerrow {

// The cores a cgroup v2 "cpu.max" line allows: "200000 100000" gives 2, and a
// part of a core counts as a whole one ("150000 100000" gives 2). 0 for
// "max" (no limit) or a line that does not read as two positive numbers.
uint32_t CoresAllowedByCpuMax(const std::string& cpu_max);

// The same for cgroup v1's two files, "cpu.cfs_quota_us" and
// "cpu.cfs_period_us"; a quota of -1 means no limit (0).
uint32_t CoresAllowedByCfsQuota(const std::string& quota, const std::string& period);

// The quota of the cgroup tree mounted at cgroup_root (normally
// /sys/fs/cgroup, where a container sees its own limit): cgroup v2's cpu.max
// first, then v1's cpu controller. 0 when there is none or it cannot be read.
uint32_t CpuQuotaCoresUnder(const std::string& cgroup_root);

// CpuQuotaCoresUnder("/sys/fs/cgroup") on Linux; 0 elsewhere.
uint32_t CpuQuotaCores();

}  // namespace kerrow

#endif  // KERROW_COMMON_CPU_QUOTA_H_
