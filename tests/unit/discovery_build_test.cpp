// The registry that a build makes of whole machines: adapter numbering
// across the IDE and SCSI passes, adapter names from sysfs and /proc/scsi,
// block nodes, and rebuilds that find a different machine.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <linux/cdrom.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "device/registry_internal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "discovery/scan_internal.h"
#include "tests/fixture/machines.h"

namespace {

using Lines = std::vector<std::string>;

class RegistryBuild : public ::testing::Test {
 protected:
  void SetUp() override { SCSI_ResetDiscoveryState(); }
  void TearDown() override { SCSI_ResetDiscoveryState(); }

  // Every path opened whose name starts with prefix, in order.
  Lines OpensUnder(const std::string& prefix) const {
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
            fixture::DescribeAdapters());
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/hdb", "h01c00t00d00 /dev/hdc", "h01c00t01d00 /dev/hdd",
                   "h02c00t00d00 /dev/sg0 /dev/scd0", "h04c00t03d00 /dev/sg1 /dev/sr1"}),
            fixture::DescribeDevices());
  EXPECT_STREQ("unknown", SCSI_GetAdapterName(3));
  EXPECT_EQ(1, IsIDEAdapter(1));
  EXPECT_EQ(0, IsRealScsiAdapter(2));
  EXPECT_EQ(1, IsRealScsiAdapter(4));
  EXPECT_EQ(0, world.OpenDescriptorCount()) << "every node the build opened is closed";
}

TEST_F(RegistryBuild, OpensGenericNodesForWritingAndBlockNodesForReading) {
  fixture::BuildIdeAndScsiMachine(world);
  SCSI_Init();
  for (const fixture::OpenRecord& open : world.Opens()) {
    const bool generic = open.path.compare(0, 7, "/dev/sg") == 0;
    EXPECT_EQ(generic ? O_RDWR | O_NONBLOCK : O_RDONLY | O_NONBLOCK, open.flags) << open.path;
  }
  EXPECT_EQ((Lines{"/dev/hdb", "/dev/hdd", "/dev/hdc", "/dev/hde"}), OpensUnder("/dev/hd"))
      << "only drives that ide-cdrom drives are opened";
}

TEST_F(RegistryBuild, OldKernelNamesHostsFromProcScsiAndKeepsIdeScsi) {
  fixture::BuildKernel24IdeScsiMachine(world);
  SCSI_Init();
  EXPECT_EQ(0, IsKernel26);
  EXPECT_EQ(0, IdeAdapterCount);
  EXPECT_TRUE(OpensUnder("/dev/hd").empty()) << "no IDE pass before 2.6";
  EXPECT_EQ((Lines{"0 ide-scsi emulated", "1 sym53c8xx real"}), fixture::DescribeAdapters());
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/sg0 /dev/scd0", "h01c00t02d00 /dev/sg1 /dev/scd1"}), fixture::DescribeDevices());
  EXPECT_EQ(2, ControllerCount);
}

TEST_F(RegistryBuild, NewKernelRegistersIdeScsiHostsWithoutTheirDrives) {
  fixture::BuildKernel26IdeScsiMachine(world);
  SCSI_Init();
  EXPECT_EQ(1, IsKernel26);
  EXPECT_EQ((Lines{"0 usb-storage real", "1 ide-scsi emulated"}), fixture::DescribeAdapters());
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/sg0 /dev/sr0"}), fixture::DescribeDevices());
  EXPECT_EQ(1, ControllerCount) << "the ide-scsi host does not count";
  EXPECT_TRUE(OpensUnder("/dev/hd").empty()) << "hdc's driver is ide-scsi, not ide-cdrom";
}

TEST_F(RegistryBuild, MachineWithoutDrivesTriesSixteenNodesOfEachKind) {
  fixture::BuildMachineWithoutDrives(world);
  SCSI_Init();
  EXPECT_EQ(0, ControllerCount);
  EXPECT_TRUE(DevicesMap.empty());
  EXPECT_TRUE(HostAdaptersMap.empty());
  const Lines generic = OpensUnder("/dev/sg");
  ASSERT_EQ(16u, generic.size());
  EXPECT_EQ("/dev/sg15", generic.back());
  EXPECT_EQ(16u, OpensUnder("/dev/sr").size()) << "/dev/scdN missing, so /dev/srN is tried";
}

TEST_F(RegistryBuild, GenericNodesRefusingTheUserAreAllTriedAndNoneCounted) {
  fixture::BuildMachineDenyingGenericNodes(world);
  SCSI_Init();
  const Lines generic = OpensUnder("/dev/sg");
  ASSERT_EQ(1000u, generic.size());
  EXPECT_EQ("/dev/sg999", generic.back());
  EXPECT_TRUE(DevicesMap.empty());
  EXPECT_TRUE(HostAdaptersMap.empty());
  EXPECT_EQ(0, ControllerCount);
}

TEST_F(RegistryBuild, RebuildOfAnotherMachineReplacesEverything) {
  fixture::BuildIdeAndScsiMachine(world);
  SCSI_Init();
  ASSERT_EQ(5, ControllerCount);
  {
    fixture::FixtureWorld other;
    fixture::FixtureWorld::Scope otherScope(other);
    fixture::BuildKernel26IdeScsiMachine(other);
    SCSI_BuildRegistry();
    EXPECT_EQ((Lines{"0 usb-storage real", "1 ide-scsi emulated"}), fixture::DescribeAdapters());
    EXPECT_EQ((Lines{"h00c00t00d00 /dev/sg0 /dev/sr0"}), fixture::DescribeDevices());
    EXPECT_EQ(0, IdeAdapterCount);
    EXPECT_EQ(1, ControllerCount);
    EXPECT_STREQ("unknown", SCSI_GetAdapterName(4)) << "no adapter of the old machine survives";
  }
}

TEST_F(RegistryBuild, ScsiAdaptersMoveWhenAnIdeInterfaceLosesItsLastDrive) {
  fixture::BuildIdeAndScsiMachine(world);
  SCSI_Init();
  world.Remove("/proc/ide/ide0/hdb");
  SCSI_BuildRegistry();
  EXPECT_EQ(1, IdeAdapterCount);
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/hdc", "h00c00t01d00 /dev/hdd", "h01c00t00d00 /dev/sg0 /dev/scd0",
                   "h03c00t03d00 /dev/sg1 /dev/sr1"}),
            fixture::DescribeDevices());
  EXPECT_EQ(4, ControllerCount);
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
  fixture::AddIdeDrive(world, 2, 'e', "ide-cdrom version 4.61");
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/hdb", "h01c00t00d00 /dev/hde", "h01c00t01d00 /dev/hdf"}),
            fixture::DescribeDevices());
  EXPECT_EQ((Lines{"0 ide-cdrom real", "1 ide-cdrom real"}), fixture::DescribeAdapters());
  EXPECT_EQ(2, IdeAdapterCount);
  EXPECT_EQ(2, ControllerCount);
}

TEST_F(IdePass, LeavesOutDrivesThatCannotBeReached) {
  fixture::AddIdeDrive(world, 0, 'a', "ide-cdrom")->answersDriveStatus_ = false;
  fixture::AddIdeDrive(world, 0, 'b', "ide-cdrom");
  world.FailOpen("/dev/hdb", ENXIO);
  fixture::AddIdeDrive(world, 1, 'c', "ide-cdromx");
  fixture::AddIdeDrive(world, 1, 'd', "ide-cdrom");
  world.Remove("/proc/ide/ide1/hdd/driver");
  world.AddFile("/proc/ide/ide2/hde/driver", "   \n");
  world.AddNode("/dev/hde", std::make_shared<fixture::AddressedNode>(2, 0, 0, 0));
  SCSI_BuildRegistry();
  EXPECT_TRUE(DevicesMap.empty());
  EXPECT_TRUE(HostAdaptersMap.empty());
  EXPECT_EQ(0, IdeAdapterCount);
  EXPECT_EQ(0, world.OpenDescriptorCount());
}

TEST_F(IdePass, TakesOnlyTheDriverWordIdeCdrom) {
  fixture::AddIdeDrive(world, 0, 'a', "ide-cdrom\tversion");
  fixture::AddIdeDrive(world, 1, 'c', "ide-cdrom-extended");
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/hda"}), fixture::DescribeDevices());
}

// Records the slot argument of each drive-status request.
class SlotRecordingDrive : public fixture::DeviceNode {
 public:
  int OnIoctl(int, unsigned long request, void* argument) override {
    if (request != CDROM_DRIVE_STATUS) return -1;
    slots.push_back(static_cast<int>(reinterpret_cast<intptr_t>(argument)));
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
  EXPECT_EQ(1u, DevicesMap.size());
}

TEST_F(IdePass, DoesNotRunBefore26) {
  IsKernel26 = 0;
  fixture::AddIdeDrive(world, 0, 'a', "ide-cdrom");
  SCSI_BuildRegistry();
  EXPECT_TRUE(DevicesMap.empty());
  EXPECT_EQ(0, IdeAdapterCount);
}

class ScsiHostPass : public RegistryBuild {
 protected:
  void SetUp() override {
    RegistryBuild::SetUp();
    IsKernel26 = 1;
  }
};

TEST_F(ScsiHostPass, FirstNodeOfAHostDecidesItsAdapter) {
  fixture::AddSysfsHost(world, 0, "ahci\n");
  fixture::AddGenericNode(world, 0, 0, 0, 0, 0, 1);
  fixture::AddGenericNode(world, 1, 0, 0, 1, 0, 0);
  fixture::AddGenericNode(world, 2, 0, 0, 2, 0, 0);
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"0 ahci emulated"}), fixture::DescribeAdapters());
  EXPECT_EQ(3u, DevicesMap.size());
  EXPECT_EQ(1, ControllerCount);
}

TEST_F(ScsiHostPass, TakesChannelAndLunFromTheAddressWord) {
  fixture::AddGenericNode(world, 0, 1, 2, 5, 3);
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"h01c02t05d03 /dev/sg0"}), fixture::DescribeDevices());
  EXPECT_EQ(2, ControllerCount);
}

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
  EXPECT_EQ(4, ControllerCount);
}

TEST_F(ScsiHostPass, OldKernelTakesTheLastDriverDirectoryListingTheHost) {
  IsKernel26 = 0;
  world.AddFile("/proc/scsi/aic7xxx/0", "");
  world.AddFile("/proc/scsi/usb-storage/0", "");
  world.AddFile("/proc/scsi/usb-storage/10", "");
  world.AddFile("/proc/scsi/.hidden/0", "");
  world.AddFile("/proc/scsi/scsi", "Attached devices:\n");
  world.AddFile("/sys/class/scsi_host/host1/proc_name", "ignored\n");
  fixture::AddGenericNode(world, 0, 0, 0, 0, 0);
  fixture::AddGenericNode(world, 1, 1, 0, 0, 0);
  SCSI_BuildRegistry();
  EXPECT_STREQ("usb-storage", SCSI_GetAdapterName(0));
  EXPECT_STREQ("unknown", SCSI_GetAdapterName(1)) << "\"10\" does not list host 1; sysfs is not read";
}

TEST_F(ScsiHostPass, BlockNodesNameRegisteredDevicesOnly) {
  fixture::AddGenericNode(world, 0, 0, 0, 0, 0);
  world.AddNode("/dev/scd0", std::make_shared<fixture::AddressedNode>(0, 0, 0, 0));
  world.AddNode("/dev/sr1", std::make_shared<fixture::AddressedNode>(0, 0, 6, 0));
  world.AddNode("/dev/scd2", std::make_shared<fixture::AddressedNode>(5, 0, 0, 0));
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/sg0 /dev/scd0"}), fixture::DescribeDevices());
  EXPECT_EQ(1, ControllerCount);
}

}  // namespace
