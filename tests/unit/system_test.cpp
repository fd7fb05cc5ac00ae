#include "runtime/system.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <math.h>
#include <string.h>

#include <string>

#include "tests/fixture/world.h"

namespace {

class SystemInfo : public ::testing::Test {
 protected:
  SystemInfo() : scope_(world_) { world_.AddFile("/proc/sys/kernel/ostype", "Linux\n"); }

  std::string OSName() { return CPortableSystem::GetOSName().GetString(); }
  std::string OSVersion() { return CPortableSystem::GetOSVersion().GetString(); }
  std::pair<unsigned int, unsigned int> VersionNumbers() {
    unsigned int major = 99, minor = 99;
    CPortableSystem::GetOSVersion(major, minor);
    return {major, minor};
  }

  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_;
};

TEST_F(SystemInfo, LsbReleaseNamesDistributionReleaseAndCodeName) {
  world_.AddFile("/etc/lsb-release", "DISTRIB_ID=Ubuntu\nDISTRIB_RELEASE=6.06\nDISTRIB_CODENAME=dapper\n");
  EXPECT_EQ("Linux (Ubuntu 6.06 'dapper')", OSName());
  world_.AddFile("/etc/lsb-release", "DISTRIB_ID=Ubuntu\nDISTRIB_RELEASE=6.06\n");
  EXPECT_EQ("Linux (Ubuntu 6.06)", OSName());
}

TEST_F(SystemInfo, LsbValuesAreTrimmedAndOnlyExactKeysAtLineStartCount) {
  world_.AddFile("/etc/lsb-release",
                 "DISTRIB_ID=Debian\n"
                 "DISTRIB_ID=  Ubuntu \t\r\n"
                 "distrib_release=1\n"
                 " DISTRIB_RELEASE=2\n"
                 "DISTRIB_RELEASE= 8.04\n"
                 "DISTRIB_CODENAME=\n");
  EXPECT_EQ("Linux (Ubuntu 8.04)", OSName());
}

TEST_F(SystemInfo, IncompleteLsbReleaseFallsBackToReleaseFiles) {
  world_.AddFile("/etc/lsb-release", "DISTRIB_ID=Ubuntu\nDISTRIB_CODENAME=dapper\n");
  world_.AddFile("/etc/debian_version", "3.1\n");
  EXPECT_EQ("Linux (Debian GNU/Linux 3.1)", OSName());
}

TEST_F(SystemInfo, FirstReleaseFileThatOpensDecides) {
  world_.AddFile("/etc/redhat-release", "Red Hat Enterprise Linux\n");
  world_.AddFile("/etc/SuSE-release", "SUSE Linux 10.1\nVERSION = 10.1\n");
  EXPECT_EQ("Linux (Red Hat Enterprise Linux)", OSName());
  world_.AddFile("/etc/fedora-release", "Fedora Core release 5 (Bordeaux)\n");
  EXPECT_EQ("Linux (Fedora Core release 5 (Bordeaux))", OSName());
  // An empty file still decides, and names nothing.
  world_.AddFile("/etc/fedora-release", "");
  EXPECT_EQ("Linux", OSName());
}

TEST_F(SystemInfo, EmptyFilesKeepDefaultsButStillSayDebian) {
  world_.AddFile("/proc/sys/kernel/ostype", "");
  world_.AddFile("/etc/debian_version", "");
  EXPECT_EQ("Linux (Debian GNU/Linux)", OSName());
}

TEST_F(SystemInfo, KernelTypeComesFromProcAndDefaultsToLinux) {
  world_.AddFile("/proc/sys/kernel/ostype", "Hurd\nsecond line\n");
  EXPECT_EQ("Hurd", OSName());
  world_.Remove("/proc/sys/kernel/ostype");
  EXPECT_EQ("Linux", OSName());
}

// Lines are read 1023 characters at a time, so the rest of a longer line
// is read as a line of its own.
TEST_F(SystemInfo, LongLsbLinesAreReadInPiecesOf1023Characters) {
  std::string first = "DISTRIB_ID=Ubuntu";
  first.resize(1023, ' ');
  world_.AddFile("/etc/lsb-release", first + "DISTRIB_RELEASE=9\n");
  EXPECT_EQ("Linux (Ubuntu 9)", OSName());
  first.resize(1022);
  world_.AddFile("/etc/lsb-release", first + "DISTRIB_RELEASE=9\n");
  EXPECT_EQ("Linux", OSName());
}

TEST_F(SystemInfo, VersionIsKernelReleaseAndMachine) {
  world_.SetUname("2.6.17-10-generic", "i686");
  EXPECT_EQ("2.6.17-10-generic (i686)", OSVersion());
  EXPECT_EQ(std::make_pair(2u, 6u), VersionNumbers());
  world_.SetUname("7", "");
  EXPECT_EQ("7", OSVersion());
  EXPECT_EQ(std::make_pair(7u, 7u), VersionNumbers());
  world_.SetUname("5.", "x86_64");
  EXPECT_EQ(std::make_pair(5u, 0u), VersionNumbers());
}

TEST_F(SystemInfo, VersionFallsBackToProcWhenUnameFails) {
  world_.FailUname();
  EXPECT_EQ("unknown", OSVersion());
  EXPECT_EQ(std::make_pair(0u, 0u), VersionNumbers());
  world_.AddFile("/proc/sys/kernel/osrelease", "3.10.0-rc1\n");
  EXPECT_EQ("3.10.0-rc1", OSVersion());
  EXPECT_EQ(std::make_pair(3u, 10u), VersionNumbers());
}

TEST_F(SystemInfo, MemoryFiguresInKiBAndLoadInPercent) {
  world_.SetMemory(2097152, 524288);
  EXPECT_EQ(2097152u, CPortableSystem::GetTotalPhysicalMemory());
  EXPECT_EQ(524288u, CPortableSystem::GetFreePhysicalMemory());
  EXPECT_DOUBLE_EQ(75.0, CPortableSystem::GetMemoryLoad());
  // 8 GiB in bytes needs the 64-bit product.
  world_.SetMemory(8388608, 4194304);
  EXPECT_EQ(8388608u, CPortableSystem::GetTotalPhysicalMemory());
  EXPECT_DOUBLE_EQ(50.0, CPortableSystem::GetMemoryLoad());
  world_.FailSysInfo();
  EXPECT_EQ(0u, CPortableSystem::GetTotalPhysicalMemory());
  EXPECT_EQ(0u, CPortableSystem::GetFreePhysicalMemory());
  EXPECT_TRUE(isnan(CPortableSystem::GetMemoryLoad()));
}

TEST_F(SystemInfo, PauseSleepsWholeSecondsThenTheRest) {
  CPortableSystem::PauseExecution(2500);
  EXPECT_EQ(2500000u, world_.SleptMicroseconds());
  EXPECT_EQ(2u, world_.SleepCalls());
  world_.ClearLogs();
  CPortableSystem::PauseExecution(0);
  CPortableSystem::PauseExecution(-5);
  EXPECT_EQ(0u, world_.SleepCalls());
}

TEST_F(SystemInfo, LastErrorIsTheThreadsErrno) {
  errno = ENOENT;
  EXPECT_EQ(ENOENT, CPortableSystem::GetLastError());
  EXPECT_STREQ(strerror(ENOENT), CPortableSystem::GetErrorString().GetString());
}

}  // namespace
