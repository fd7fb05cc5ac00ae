// The registry that a build makes of whole machines: adapter numbering
// across the IDE and SCSI passes, adapter names from sysfs and /proc/scsi,
// block nodes, rebuilds that find a different machine, and the node walk.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "device/registry_internal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "discovery/scan_internal.h"
#include "tests/fixture/machines.h"

namespace {

using Lines = std::vector<std::string>;
using fixture::DescribeAdapters;
using fixture::DescribeDevices;

class RegistryBuild : public ::testing::Test {
 protected:
  void SetUp() override { SCSI_ResetDiscoveryState(); }
  void TearDown() override { SCSI_ResetDiscoveryState(); }

  // Every path opened that starts with prefix, in order.
  Lines OpensUnder(const std::string& prefix) const { return OpensUnder(world, prefix); }
  static Lines OpensUnder(const fixture::FixtureWorld& world, const std::string& prefix) {
    Lines paths;
    for (const fixture::OpenRecord& open : world.Opens())
      if (open.path.compare(0, prefix.size(), prefix) == 0) paths.push_back(open.path);
    return paths;
  }

  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope{world};
};

TEST_F(RegistryBuild, NumbersIdeInterfacesFirstAndScsiHostsAfterThem) {
  fixture::BuildIdeAndScsiMachine(world);
  SCSI_Init();
  EXPECT_EQ(2, IdeAdapterCount);
  EXPECT_EQ(5, ASPI_GetNumControllers());
  EXPECT_EQ((Lines{"0 ide-cdrom real", "1 ide-cdrom real", "2 ata_piix emulated", "4 sym53c8xx real"}),
            DescribeAdapters());
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/hdb", "h01c00t00d00 /dev/hdc", "h01c00t01d00 /dev/hdd",
                   "h02c00t00d00 /dev/sg0 /dev/scd0", "h04c00t03d00 /dev/sg1 /dev/sr1"}),
            DescribeDevices());
  EXPECT_EQ((Lines{"/dev/hdb", "/dev/hdd", "/dev/hdc", "/dev/hde"}), OpensUnder("/dev/hd"))
      << "only drives of the ide-cdrom driver are opened";
  for (const fixture::OpenRecord& open : world.Opens())
    EXPECT_EQ(open.path.compare(0, 7, "/dev/sg") == 0 ? O_RDWR | O_NONBLOCK : O_RDONLY | O_NONBLOCK, open.flags)
        << open.path;
  EXPECT_EQ(0, world.OpenDescriptorCount());
}

// Before 2.6 ide-scsi drives are registered and hosts named from
// /proc/scsi; from 2.6 on an ide-scsi host is registered without its drives
// and does not count.
TEST_F(RegistryBuild, IdeScsiDrivesCountOnlyBefore26) {
  fixture::BuildKernel24IdeScsiMachine(world);
  SCSI_Init();
  EXPECT_EQ(0, IdeAdapterCount);
  EXPECT_TRUE(OpensUnder("/dev/hd").empty()) << "no IDE pass before 2.6";
  EXPECT_EQ((Lines{"0 ide-scsi emulated", "1 sym53c8xx real"}), DescribeAdapters());
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/sg0 /dev/scd0", "h01c00t02d00 /dev/sg1 /dev/scd1"}), DescribeDevices());
  SCSI_ResetDiscoveryState();
  fixture::FixtureWorld other;
  fixture::FixtureWorld::Scope otherScope(other);
  fixture::BuildKernel26IdeScsiMachine(other);
  SCSI_Init();
  EXPECT_EQ((Lines{"0 usb-storage real", "1 ide-scsi emulated"}), DescribeAdapters());
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/sg0 /dev/sr0"}), DescribeDevices());
  EXPECT_EQ(1, ControllerCount) << "the ide-scsi host does not count";
}

TEST_F(RegistryBuild, EmptyOrForbiddingMachinesGiveAnEmptyRegistry) {
  fixture::BuildMachineWithoutDrives(world);
  SCSI_Init();
  EXPECT_EQ(16u, OpensUnder("/dev/sg").size());
  EXPECT_EQ(16u, OpensUnder("/dev/sr").size()) << "/dev/scdN missing, so /dev/srN is tried";
  EXPECT_EQ(0, ControllerCount);
  SCSI_ResetDiscoveryState();
  fixture::FixtureWorld forbidding;
  fixture::FixtureWorld::Scope forbiddingScope(forbidding);
  fixture::BuildMachineDenyingGenericNodes(forbidding);
  SCSI_Init();
  EXPECT_EQ(1000u, OpensUnder(forbidding, "/dev/sg").size()) << "refusals are not counted";
  EXPECT_TRUE(DevicesMap.empty());
  EXPECT_TRUE(HostAdaptersMap.empty());
}

TEST_F(RegistryBuild, RebuildReplacesTheWholeRegistryAndRenumbers) {
  fixture::BuildIdeAndScsiMachine(world);
  SCSI_Init();
  world.Remove("/proc/ide/ide0/hdb");
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/hdc", "h00c00t01d00 /dev/hdd", "h01c00t00d00 /dev/sg0 /dev/scd0",
                   "h03c00t03d00 /dev/sg1 /dev/sr1"}),
            DescribeDevices());
  EXPECT_EQ(4, ControllerCount);
  fixture::FixtureWorld other;
  fixture::FixtureWorld::Scope otherScope(other);
  fixture::BuildKernel26IdeScsiMachine(other);
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/sg0 /dev/sr0"}), DescribeDevices());
  EXPECT_EQ(0, IdeAdapterCount);
}

class IdePass : public RegistryBuild {
 protected:
  void SetUp() override {
    RegistryBuild::SetUp();
    IsKernel26 = 1;
  }
};

TEST_F(IdePass, NumbersInterfacesDenselyAndDrivesByLetter) {
  fixture::AddIdeDrive(world, 2, 'f', "ide-cdrom version 4.61");
  fixture::AddIdeDrive(world, 0, 'b', "ide-cdrom");
  fixture::AddIdeDrive(world, 2, 'e', "ide-cdrom\tversion");
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/hdb", "h01c00t00d00 /dev/hde", "h01c00t01d00 /dev/hdf"}), DescribeDevices());
  EXPECT_EQ((Lines{"0 ide-cdrom real", "1 ide-cdrom real"}), DescribeAdapters());
  EXPECT_EQ(2, IdeAdapterCount);
}

TEST_F(IdePass, LeavesOutDrivesThatCannotBeReached) {
  fixture::AddIdeDrive(world, 0, 'a', "ide-cdrom")->answersDriveStatus_ = false;
  fixture::AddIdeDrive(world, 0, 'b', "ide-cdrom");
  world.FailOpen("/dev/hdb", ENXIO);
  fixture::AddIdeDrive(world, 1, 'c', "ide-cdrom-extended");
  fixture::AddIdeDrive(world, 1, 'd', "ide-cdrom");
  world.Remove("/proc/ide/ide1/hdd/driver");
  fixture::AddIdeDrive(world, 2, 'e', "  ");
  SCSI_BuildRegistry();
  EXPECT_TRUE(DevicesMap.empty());
  EXPECT_TRUE(HostAdaptersMap.empty());
  EXPECT_EQ(0, world.OpenDescriptorCount());
}

TEST_F(IdePass, NamesFromSysfsLinesLikeFgets) {
  fixture::AddSysfsHost(world, 0, "");
  fixture::AddSysfsHost(world, 1, std::string(70, 'x') + "\n");
  fixture::AddSysfsHost(world, 2, "qla2xxx\nsecond line\n");
  for (int host = 0; host < 4; ++host) fixture::AddGenericNode(world, host, host, 0, 0, 0);
  SCSI_BuildRegistry();
  EXPECT_STREQ("unknown", SCSI_GetAdapterName(0)) << "empty proc_name";
  EXPECT_EQ(std::string(63, 'x'), SCSI_GetAdapterName(1)) << "63 characters at most";
  EXPECT_STREQ("qla2xxx", SCSI_GetAdapterName(2));
  EXPECT_STREQ("unknown", SCSI_GetAdapterName(3)) << "no proc_name file";
}

TEST_F(IdePass, OldKernelTakesTheLastDriverDirectoryListingTheHost) {
  IsKernel26 = 0;
  world.AddFile("/proc/scsi/aic7xxx/0", "");
  world.AddFile("/proc/scsi/usb-storage/0", "");
  world.AddFile("/proc/scsi/usb-storage/10", "");
  world.AddFile("/proc/scsi/.hidden/0", "");
  world.AddFile("/sys/class/scsi_host/host1/proc_name", "ignored\n");
  fixture::AddGenericNode(world, 0, 0, 0, 0, 0);
  fixture::AddGenericNode(world, 1, 1, 0, 0, 0);
  SCSI_BuildRegistry();
  EXPECT_STREQ("usb-storage", SCSI_GetAdapterName(0));
  EXPECT_STREQ("unknown", SCSI_GetAdapterName(1)) << "\"10\" does not list host 1; sysfs is not read";
}

TEST_F(IdePass, FirstNodeOfAHostDecidesItsAdapterAndBlockNodesNameRegisteredDevicesOnly) {
  fixture::AddSysfsHost(world, 1, "ahci\n");
  fixture::AddGenericNode(world, 0, 1, 0, 0, 0, 1);
  fixture::AddGenericNode(world, 1, 1, 0, 1, 0, 0);
  fixture::AddGenericNode(world, 2, 1, 2, 5, 3, 0);
  world.AddNode("/dev/scd0", std::make_shared<fixture::AddressedNode>(1, 0, 0, 0));
  world.AddNode("/dev/sr1", std::make_shared<fixture::AddressedNode>(1, 0, 6, 0));
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"1 ahci emulated"}), DescribeAdapters());
  EXPECT_EQ((Lines{"h01c00t00d00 /dev/sg0 /dev/scd0", "h01c00t01d00 /dev/sg1", "h01c02t05d03 /dev/sg2"}),
            DescribeDevices());
  EXPECT_EQ(2, ControllerCount);
}

// The node walk's limits and the presence probe built on it.
class NodeWalk : public IdePass {
 protected:
  // The nodes a walk over /dev/sg hands on; it stops at stopTarget.
  Lines Walk(int stopTarget = -1) {
    Lines taken;
    SCSI_WalkDeviceNodes(SCSI_MakeSgDeviceName, O_RDONLY, [&](int, char const* path, const SCSI_NodeAddress& at) {
      taken.push_back(path);
      return at.target == stopTarget;
    });
    EXPECT_EQ(0, world.OpenDescriptorCount());
    return taken;
  }
  std::string LastOpened() const { return world.Opens().back().path; }
};

TEST_F(NodeWalk, EndsAfterSixteenFailuresCountedOverTheWholeWalk) {
  for (int n : {0, 1, 2, 12}) fixture::AddGenericNode(world, n, 0, 0, n, 0);
  fixture::AddGenericNode(world, 20, 0, 0, 20, 0);
  EXPECT_EQ((Lines{"/dev/sg0", "/dev/sg1", "/dev/sg2", "/dev/sg12"}), Walk());
  EXPECT_EQ("/dev/sg19", LastOpened()) << "nine failures before sg12, seven after";
  EXPECT_EQ(3u, Walk(2).size()) << "the visitor can end the walk";
  EXPECT_EQ("/dev/sg2", LastOpened());
}

TEST_F(NodeWalk, SkipsBusyAndForbiddenNodesButCountsSilentOnes) {
  for (int n = 0; n < 6; ++n) {
    fixture::AddGenericNode(world, n, 0, 0, n, 0);
    world.FailOpen("/dev/sg" + std::to_string(n), n % 2 == 0 ? EBUSY : EACCES);
  }
  for (int n = 6; n < 30; ++n) fixture::AddGenericNode(world, n, 0, 0, n, 0)->answersAddress_ = n == 8;
  EXPECT_EQ((Lines{"/dev/sg8"}), Walk());
  EXPECT_EQ("/dev/sg22", LastOpened());
}

TEST_F(NodeWalk, PresenceAnswersFromTheRegistryFirst) {
  IdeAdapterCount = 2;
  SCSI_RegisterDevice(SCSI_MakeDeviceKey(3, 0, 4, 0), SCSI_NewDeviceProperties("/dev/sg9"));
  EXPECT_TRUE(SCSI_IsDevicePresent(1, 0, 4, 0)) << "Linux host 1 is ASPI adapter 3";
  EXPECT_TRUE(world.Opens().empty());
}

TEST_F(NodeWalk, PresenceFindsUnregisteredNodesByTheirWholeAddress) {
  fixture::AddGenericNode(world, 0, 0, 0, 0, 0);
  fixture::AddGenericNode(world, 1, 2, 1, 3, 4);
  SCSI_RegisterAdapter(0, "ide-scsi", 1);
  EXPECT_TRUE(SCSI_IsDevicePresent(2, 1, 3, 4));
  EXPECT_EQ(O_RDONLY | O_NONBLOCK, world.Opens().back().flags);
  EXPECT_FALSE(SCSI_IsDevicePresent(2, 0, 3, 4));
  EXPECT_FALSE(SCSI_IsDevicePresent(0, 0, 0, 0)) << "an ide-scsi node does not count";
  IsKernel26 = 0;
  EXPECT_TRUE(SCSI_IsDevicePresent(0, 0, 0, 0)) << "except before 2.6";
  EXPECT_TRUE(DevicesMap.empty()) << "the probe registers nothing";
  EXPECT_EQ(0, world.OpenDescriptorCount());
}

}  // namespace
