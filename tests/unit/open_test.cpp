// Opening registered devices, the descriptor cache, device locks, and the
// unmount chain that precedes an exclusive open.
#include <errno.h>
#include <fcntl.h>
#include <scsi/sg.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "device/open.h"
#include "device/registry_internal.h"
#include "device/unmount_internal.h"
#include "gtest/gtest.h"
#include "runtime/os.h"
#include "tests/fixture/emulated_drive.h"
#include "tests/fixture/world.h"

namespace {

const char kUmount[] = "umount /dev/sr0 > /dev/null 2>&1";
const char kPumount[] = "pumount /dev/sr0 > /dev/null 2>&1";
const char kHalUnmount[] =
    "dbus-send --print-reply --system --dest=org.freedesktop.Hal `hal-find-by-property --key \"block.device\" "
    "--string \"/dev/sr0\" | grep /volume | head -n1` org.freedesktop.Hal.Device.Volume.Unmount array:string:  > "
    "/dev/null 2>&1";
const char kGnomeUnmount[] = "gnome-mount --no-ui --unmount --device /dev/sr0 > /dev/null 2>&1";
const char kMediaManagerUnmount[] =
    "dcop kded mediamanager unmount `dcop kded mediamanager properties /dev/sr0 2>/dev/null | head -n 1` "
    ">/dev/null 2>&1";

class OpenTest : public ::testing::Test {
 protected:
  OpenTest() : scope_(world_) { world_.AddFile("/etc/mtab", "/dev/sda1 / ext4 rw 0 0\n"); }

  std::vector<unsigned long> IoctlsOn(const std::string& path) const {
    std::vector<unsigned long> requests;
    for (const fixture::IoctlRecord& record : world_.Ioctls())
      if (record.path == path) requests.push_back(record.request);
    return requests;
  }

  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_;
  fixture::RegistryReset registry_;
};

TEST_F(OpenTest, FlagsFollowTheNodeKindAndOnlyGenericNodesArePrepared) {
  struct Case {
    const char* path;
    int flags;
    bool prepared;
  } cases[] = {
      {"/dev/sg3", O_RDWR, true},   {"/dev/hdc", O_RDWR | O_NONBLOCK, false}, {"/dev/scd0", O_RDONLY, false},
      {"sg1", O_RDONLY, false},     {"/dev/s", O_RDONLY, false},              {"/dev/", O_RDONLY, false},
  };
  int target = 0;
  for (const Case& c : cases) {
    world_.AddNode(c.path, std::make_shared<fixture::DeviceNode>());
    fixture::RegisterTestDevice(0, 0, target, 0, c.path);
    world_.ClearLogs();
    const int fd = SCSI_OpenDevice(0, 0, target++, 0, 0, nullptr);
    ASSERT_NE(-1, fd) << c.path;
    ASSERT_EQ(1u, world_.Opens().size()) << c.path;
    EXPECT_EQ(c.flags, world_.Opens()[0].flags) << c.path;
    if (c.prepared) {
      ASSERT_EQ(2u, world_.Ioctls().size());
      EXPECT_EQ(static_cast<unsigned long>(SG_SET_RESERVED_SIZE), world_.Ioctls()[0].request);
      EXPECT_EQ(131072, world_.Ioctls()[0].value);
      EXPECT_EQ(static_cast<unsigned long>(SG_SET_TIMEOUT), world_.Ioctls()[1].request);
      EXPECT_EQ(10800000, world_.Ioctls()[1].value);
    } else {
      EXPECT_TRUE(world_.Ioctls().empty()) << c.path;
    }
    kavo::os::Close(fd);
  }
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

TEST_F(OpenTest, UnknownDeviceOpensNothing) {
  int block = 5;
  EXPECT_EQ(-1, SCSI_OpenDevice(3, 0, 1, 0, 1, &block));
  EXPECT_EQ(-1, block);
  EXPECT_TRUE(world_.Opens().empty());
  EXPECT_TRUE(world_.ShellCommands().empty());
}

TEST_F(OpenTest, BlockDescriptorOnlyForGenericNodesWithAKnownBlockNode) {
  fixture::PlaceSgDrive(world_, "/dev/sg0", 0, 0, 0, 0);
  fixture::PlaceSgDrive(world_, "/dev/sg1", 0, 0, 1, 0);
  world_.AddNode("/dev/sr0", std::make_shared<fixture::DeviceNode>());
  world_.AddNode("/dev/hdc", std::make_shared<fixture::DeviceNode>());
  fixture::RegisterTestDevice(0, 0, 0, 0, "/dev/sg0", "/dev/sr0");
  fixture::RegisterTestDevice(0, 0, 1, 0, "/dev/sg1");
  fixture::RegisterTestDevice(0, 0, 2, 0, "/dev/hdc", "/dev/sr0");

  int block = 0;
  const int fd = SCSI_OpenDevice(0, 0, 0, 0, 0, &block);
  ASSERT_NE(-1, block);
  EXPECT_EQ("/dev/sr0", world_.Opens().back().path);
  EXPECT_EQ(O_RDONLY | O_NONBLOCK, world_.Opens().back().flags);
  kavo::os::Close(block);
  kavo::os::Close(fd);

  for (int target : {1, 2}) {
    block = 0;
    const int other = SCSI_OpenDevice(0, 0, target, 0, 0, &block);
    EXPECT_NE(-1, other);
    EXPECT_EQ(-1, block);
    kavo::os::Close(other);
  }
  world_.FailOpen("/dev/sr0", ENOENT);
  const int withoutBlock = SCSI_OpenDevice(0, 0, 0, 0, 0, &block);
  EXPECT_NE(-1, withoutBlock);
  EXPECT_EQ(-1, block);
  kavo::os::Close(withoutBlock);
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

TEST_F(OpenTest, BusyNodeIsRetriedTenTimesAHundredMicrosecondsApart) {
  world_.AddNode("/dev/sg0", std::make_shared<fixture::DeviceNode>());
  fixture::RegisterTestDevice(0, 0, 0, 0, "/dev/sg0");
  world_.FailOpen("/dev/sg0", EBUSY);
  EXPECT_EQ(-1, SCSI_OpenDevice(0, 0, 0, 0, 0, nullptr));
  EXPECT_EQ(EBUSY, errno);
  EXPECT_EQ(11u, world_.Opens().size());
  EXPECT_EQ(1000u, world_.SleptMicroseconds());

  world_.ClearLogs();
  world_.FailOpen("/dev/sg0", ENOENT);
  EXPECT_EQ(-1, SCSI_OpenDevice(0, 0, 0, 0, 0, nullptr));
  EXPECT_EQ(1u, world_.Opens().size());
  EXPECT_EQ(0u, world_.SleptMicroseconds());
}

TEST_F(OpenTest, NodeThatStopsBeingBusyIsOpened) {
  auto node = fixture::PlaceSgDrive(world_, "/dev/sg0", 0, 0, 0, 0);
  fixture::RegisterTestDevice(0, 0, 0, 0, "/dev/sg0");
  node->RefuseOpensBusy(3);
  const int fd = SCSI_OpenDevice(0, 0, 0, 0, 0, nullptr);
  EXPECT_NE(-1, fd);
  EXPECT_EQ(4u, world_.Opens().size());
  kavo::os::Close(fd);
}

TEST_F(OpenTest, ExclusiveOpenChecksTheBlockNodeOfAGenericDrive) {
  fixture::PlaceSgDrive(world_, "/dev/sg0", 0, 0, 0, 0);
  fixture::RegisterTestDevice(0, 0, 0, 0, "/dev/sg0", "/dev/sr0");
  world_.AddFile("/etc/mtab", "/dev/sr0 /media/cdrom iso9660 ro 0 0\n");
  world_.SetShellHook([this](const std::string&) {
    world_.AddFile("/etc/mtab", "");
    return 0;
  });
  const int fd = SCSI_OpenDevice(0, 0, 0, 0, 1, nullptr);
  EXPECT_NE(-1, fd);
  EXPECT_EQ(std::vector<std::string>{kUmount}, world_.ShellCommands());
  EXPECT_EQ(O_RDWR | O_EXCL, world_.Opens().back().flags);
  kavo::os::Close(fd);
}

TEST_F(OpenTest, ExclusiveOpenOfAnIdeDriveChecksItsOwnNode) {
  world_.AddNode("/dev/hdc", std::make_shared<fixture::DeviceNode>());
  fixture::RegisterTestDevice(0, 0, 0, 0, "/dev/hdc");
  world_.AddFile("/etc/mtab", "/dev/hdc /media/cdrom iso9660 ro 0 0\n");
  const int fd = SCSI_OpenDevice(0, 0, 0, 0, 1, nullptr);
  EXPECT_NE(-1, fd);
  ASSERT_FALSE(world_.ShellCommands().empty());
  EXPECT_EQ("umount /dev/hdc > /dev/null 2>&1", world_.ShellCommands()[0]);
  EXPECT_EQ(O_RDWR | O_NONBLOCK | O_EXCL, world_.Opens().back().flags);
  kavo::os::Close(fd);
}

TEST_F(OpenTest, GenericDriveWithoutBlockNodeSkipsTheChainEvenWhenEverythingCountsAsMounted) {
  fixture::PlaceSgDrive(world_, "/dev/sg0", 0, 0, 0, 0);
  fixture::RegisterTestDevice(0, 0, 0, 0, "/dev/sg0");
  world_.Remove("/etc/mtab");
  const int fd = SCSI_OpenDevice(0, 0, 0, 0, 1, nullptr);
  EXPECT_NE(-1, fd);
  EXPECT_TRUE(world_.ShellCommands().empty());
  kavo::os::Close(fd);
}

TEST_F(OpenTest, OnlyTheValueOneAsksForExclusiveUse) {
  fixture::PlaceSgDrive(world_, "/dev/sg0", 0, 0, 0, 0);
  fixture::RegisterTestDevice(0, 0, 0, 0, "/dev/sg0", "/dev/sr0");
  world_.Remove("/etc/mtab");
  const int fd = SCSI_OpenDevice(0, 0, 0, 0, 2, nullptr);
  EXPECT_EQ(O_RDWR, world_.Opens().back().flags);
  EXPECT_TRUE(world_.ShellCommands().empty());
  kavo::os::Close(fd);
}

TEST_F(OpenTest, CachedDescriptorIsFoundByDevicePath) {
  fixture::RegisterTestDevice(2, 0, 1, 0, "/dev/sg4");
  EXPECT_EQ(-1, SCSI_GetDeviceFileDesc(2, 0, 1, 0));
  EXPECT_EQ(-1, SCSI_GetDeviceFileDesc(2, 0, 2, 0));
  {
    DevicesMapHold hold;
    OpenedDevicesMap[CBasicString<char>("/dev/sg4")] = new SCSI_RefCountedFileDesc{42, 1, false};
  }
  EXPECT_EQ(42, SCSI_GetDeviceFileDesc(2, 0, 1, 0));
}

TEST_F(OpenTest, LockWaitsForTheHolderAndIsRecursive) {
  fixture::RegisterTestDevice(0, 0, 0, 0, "/dev/sg0");
  ASSERT_EQ(1, SCSI_LockDevice(0, 0, 0, 0));
  ASSERT_EQ(1, SCSI_LockDevice(0, 0, 0, 0));
  std::atomic<bool> otherHolds(false);
  std::thread other([&] {
    SCSI_LockDevice(0, 0, 0, 0);
    otherHolds = true;
    SCSI_UnlockDevice(0, 0, 0, 0);
  });
  SCSI_UnlockDevice(0, 0, 0, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(otherHolds);
  {
    DevicesMapHold hold;  // the registry stays usable while the other thread waits
    EXPECT_NE(nullptr, SCSI_GetDeviceProperties(0, 0, 0, 0));
  }
  SCSI_UnlockDevice(0, 0, 0, 0);
  other.join();
  EXPECT_TRUE(otherHolds);
}

TEST_F(OpenTest, LockOfAVanishedDeviceReturnsAtOnce) {
  EXPECT_EQ(0, SCSI_LockDevice(0, 0, 5, 0));
  EXPECT_EQ(1, SCSI_UnlockDevice(0, 0, 5, 0));
}

class MountTest : public ::testing::Test {
 protected:
  MountTest() : scope_(world_) {}
  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_;
};

TEST_F(MountTest, CountsPrefixMatchesOfTheDeviceFieldOrItsLinkTargetText) {
  world_.AddSymlink("/dev/cdrom", "sr0");
  world_.AddSymlink("/dev/dvd", "/dev/sr0");
  world_.AddFile("/etc/mtab",
                 "/dev/sr0 /media/a iso9660 ro 0 0\n"
                 "/dev/sr10 /media/b udf ro 0 0\n"
                 "/dev/cdrom /media/c iso9660 ro 0 0\n"
                 "/dev/dvd /media/d udf ro 0 0\n"
                 "/dev/sr2\n"
                 "/dev/sda1 / ext4 rw 0 0\n");
  EXPECT_EQ(2, SCSI_CountMounts("/dev/sr0"));  // its own line and /dev/dvd's target
  EXPECT_EQ(1, SCSI_CountMounts("/dev/sr1"));  // /dev/sr10
  EXPECT_EQ(1, SCSI_CountMounts("sr0"));       // the relative target text, not resolved
  EXPECT_EQ(0, SCSI_CountMounts("/dev/cdrom"));
  EXPECT_EQ(1, SCSI_CountMounts("/dev/sr2"));  // a line without a blank is its own field
  EXPECT_EQ(4, SCSI_CountMounts("/dev/sr"));
}

TEST_F(MountTest, LongLinesArriveInPiecesOf8190Characters) {
  world_.AddFile("/etc/mtab", std::string(8190, 'x') + "/dev/sr0 /media iso9660 ro 0 0\n");
  EXPECT_EQ(1, SCSI_CountMounts("/dev/sr0"));
  world_.AddFile("/etc/mtab", std::string(8189, 'x') + "/dev/sr0 /media iso9660 ro 0 0\n");
  EXPECT_EQ(0, SCSI_CountMounts("/dev/sr0"));
}

TEST_F(MountTest, DriveThatIsNotMountedRunsNoCommand) {
  world_.AddFile("/etc/mtab", "/dev/sda1 / ext4 rw 0 0\n/dev/sr1 /media iso9660 ro 0 0\n");
  SCSI_UnmountVolumes("/dev/sr0");
  EXPECT_TRUE(world_.ShellCommands().empty());
}

TEST_F(MountTest, UmountRunsOncePerMountAndTheChainStopsWhenNothingIsLeft) {
  world_.AddFile("/etc/mtab", "/dev/sr0 /media/a iso9660 ro 0 0\n/dev/sr0 /media/b udf ro 0 0\n");
  int mounts = 2;
  world_.SetShellHook([&](const std::string& command) {
    if (command.compare(0, 7, "umount ") == 0 && mounts > 0) --mounts;
    world_.AddFile("/etc/mtab", mounts == 2 ? "/dev/sr0 a\n/dev/sr0 b\n" : mounts == 1 ? "/dev/sr0 b\n" : "");
    return 0;
  });
  SCSI_UnmountVolumes("/dev/sr0");
  EXPECT_EQ((std::vector<std::string>{kUmount, kUmount}), world_.ShellCommands());
}

TEST_F(MountTest, EachLaterToolRunsOnlyWhileTheDriveStillCountsAsMounted) {
  world_.AddFile("/etc/mtab", "/dev/sr0 /media/a iso9660 ro 0 0\n");
  world_.SetShellHook([&](const std::string& command) {
    if (command.compare(0, 8, "pumount ") == 0) world_.AddFile("/etc/mtab", "");
    return 1;
  });
  SCSI_UnmountVolumes("/dev/sr0");
  EXPECT_EQ((std::vector<std::string>{kUmount, kPumount}), world_.ShellCommands());
}

TEST_F(MountTest, WithoutAMountTableEveryToolRunsOnceInOrder) {
  EXPECT_EQ(1, SCSI_CountMounts("/dev/anything"));
  SCSI_UnmountVolumes("/dev/sr0");
  EXPECT_EQ((std::vector<std::string>{kUmount, kPumount, kHalUnmount, kGnomeUnmount, kMediaManagerUnmount}),
            world_.ShellCommands());
}

}  // namespace
