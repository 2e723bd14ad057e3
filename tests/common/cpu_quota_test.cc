// The cores a cgroup CPU-time quota allows, from the files a container sees.

#include "common/cpu_quota.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <limits>
#include <string>

#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {

TEST(CoresAllowedByCpuMax, WholeCoresOfQuotaPerPeriod) {
  EXPECT_EQ(CoresAllowedByCpuMax("200000 100000"), 2u);
  EXPECT_EQ(CoresAllowedByCpuMax("100000 100000\n"), 1u);
  EXPECT_EQ(CoresAllowedByCpuMax("800000 100000"), 8u);
}

TEST(CoresAllowedByCpuMax, PartOfACoreCountsAsAWholeOne) {
  EXPECT_EQ(CoresAllowedByCpuMax("150000 100000"), 2u);
  EXPECT_EQ(CoresAllowedByCpuMax("50000 100000"), 1u);
  EXPECT_EQ(CoresAllowedByCpuMax("1 100000"), 1u);
}

TEST(CoresAllowedByCpuMax, NoLimitIsZero) { EXPECT_EQ(CoresAllowedByCpuMax("max 100000"), 0u); }

TEST(CoresAllowedByCpuMax, LinesThatDoNotReadAreZero) {
  EXPECT_EQ(CoresAllowedByCpuMax(""), 0u);
  EXPECT_EQ(CoresAllowedByCpuMax("200000"), 0u);
  EXPECT_EQ(CoresAllowedByCpuMax("200000 100000 7"), 0u);
  EXPECT_EQ(CoresAllowedByCpuMax("200000 0"), 0u);
  EXPECT_EQ(CoresAllowedByCpuMax("0 100000"), 0u);
  EXPECT_EQ(CoresAllowedByCpuMax("-200000 100000"), 0u);
  EXPECT_EQ(CoresAllowedByCpuMax("2e5 100000"), 0u);
  EXPECT_EQ(CoresAllowedByCpuMax("99999999999999999999999 100000"), 0u);
}

TEST(CoresAllowedByCpuMax, AHugeQuotaSaturates) {
  EXPECT_EQ(CoresAllowedByCpuMax("18446744073709551615 1"), std::numeric_limits<uint32_t>::max());
}

TEST(CoresAllowedByCfsQuota, QuotaOverPeriodAndMinusOneForNoLimit) {
  EXPECT_EQ(CoresAllowedByCfsQuota("300000\n", "100000\n"), 3u);
  EXPECT_EQ(CoresAllowedByCfsQuota("250000", "100000"), 3u);
  EXPECT_EQ(CoresAllowedByCfsQuota("-1\n", "100000\n"), 0u);
  EXPECT_EQ(CoresAllowedByCfsQuota("", "100000"), 0u);
  EXPECT_EQ(CoresAllowedByCfsQuota("300000", ""), 0u);
}

void MakeDir(const std::string& path) { ASSERT_EQ(::mkdir(path.c_str(), 0755), 0) << path; }

TEST(CpuQuotaCoresUnder, ReadsCgroupTwosCpuMax) {
  TempDir root;
  WriteFileBytes(root.File("cpu.max"), "300000 100000\n");
  EXPECT_EQ(CpuQuotaCoresUnder(root.path()), 3u);
}

TEST(CpuQuotaCoresUnder, ReadsCgroupOnesCpuControllerUnderEitherName) {
  for (const std::string controller : {"cpu", "cpu,cpuacct"}) {
    TempDir root;
    MakeDir(root.File(controller));
    WriteFileBytes(root.File(controller + "/cpu.cfs_quota_us"), "200000\n");
    WriteFileBytes(root.File(controller + "/cpu.cfs_period_us"), "100000\n");
    EXPECT_EQ(CpuQuotaCoresUnder(root.path()), 2u) << controller;
  }
}

TEST(CpuQuotaCoresUnder, NoLimitOrNoFilesIsZero) {
  TempDir unlimited;
  WriteFileBytes(unlimited.File("cpu.max"), "max 100000\n");
  EXPECT_EQ(CpuQuotaCoresUnder(unlimited.path()), 0u);
  TempDir empty;
  EXPECT_EQ(CpuQuotaCoresUnder(empty.path()), 0u);
  EXPECT_EQ(CpuQuotaCoresUnder(empty.File("missing")), 0u);
}

}  // namespace
}  // namespace kerrow::testing
