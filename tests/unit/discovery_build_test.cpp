// The registry that a build makes of whole machines: adapter numbering
// across the IDE and SCSI passes, adapter names from sysfs and /proc/scsi,
// block nodes, and rebuilds that find a different machine.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <linux/cdrom.h>
#include <stdint.h>

#include "device/registry_internal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
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

// Records the slot argument of each drive-status request.
class SlotRecordingDrive : public fixture::DeviceNode {
 public:
  int OnIoctl(int, unsigned long request, void* argument) override {
    slots.push_back(request == CDROM_DRIVE_STATUS ? static_cast<int>(reinterpret_cast<intptr_t>(argument)) : -1);
    return CDS_DISC_OK;
  }
  std::vector<int> slots;
};

TEST_F(IdePass, AsksTheDriveStatusOfTheCurrentSlot) {
  world.AddFile("/proc/ide/ide0/hda/driver", "ide-cdrom version 4.61\n");
  auto drive = std::make_shared<SlotRecordingDrive>();
  world.AddNode("/dev/hda", drive);
  SCSI_BuildRegistry();
  EXPECT_EQ((std::vector<int>{CDSL_CURRENT}), drive->slots);
}

class ScsiHostPass : public IdePass {};

TEST_F(ScsiHostPass, NamesFromSysfsLinesLikeFgets) {
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

TEST_F(ScsiHostPass, OldKernelTakesTheLastDriverDirectoryListingTheHost) {
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

TEST_F(ScsiHostPass, FirstNodeOfAHostDecidesItsAdapterAndBlockNodesNameRegisteredDevicesOnly) {
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

}  // namespace
