// Opening registered devices, the descriptor cache, device locks, and the
// unmount chain that precedes an exclusive open.
#include "device/open.h"

#include <errno.h>
#include <fcntl.h>
#include <scsi/sg.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "device/registry_internal.h"
#include "device/unmount_internal.h"
#include "gtest/gtest.h"
#include "runtime/os.h"
#include "tests/fixture/emulated_drive.h"

namespace {

using Lines = std::vector<std::string>;
const char kUmount[] = "umount /dev/sr0 > /dev/null 2>&1";
const char kPumount[] = "pumount /dev/sr0 > /dev/null 2>&1";

class OpenTest : public ::testing::Test {
 protected:
  OpenTest() : scope_(world_) { world_.AddFile("/etc/mtab", "/dev/sda1 / ext4 rw 0 0\n"); }
  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_;
  fixture::RegistryReset registry_;
};

TEST_F(OpenTest, FlagsFollowTheNodeKindAndOnlyGenericNodesArePrepared) {
  struct Case {
    const char* path;
    int flags;
  } cases[] = {{"/dev/sg3", O_RDWR | O_NONBLOCK},    {"/dev/hdc", O_RDWR | O_NONBLOCK},
               {"/dev/scd0", O_RDONLY}, {"sg1", O_RDONLY},
               {"/dev/s", O_RDONLY},    {"/dev/", O_RDONLY}};
  int target = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    world_.AddNode(c.path, std::make_shared<fixture::DeviceNode>());
    fixture::RegisterTestDevice(0, 0, target, 0, c.path);
    world_.ClearLogs();
    const int fd = SCSI_OpenDevice(0, 0, target++, 0, 0, nullptr);
    ASSERT_NE(-1, fd);
    ASSERT_EQ(1u, world_.Opens().size());
    EXPECT_EQ(c.flags, world_.Opens()[0].flags);
    std::string prepared;  // a generic node gets its reserved size and timeout
    for (const fixture::IoctlRecord& record : world_.Ioctls())
      prepared += (record.request == SG_SET_RESERVED_SIZE ? "size "
                   : record.request == SG_SET_TIMEOUT     ? "timeout "
                                                          : "? ") +
                  std::to_string(record.value) + " ";
    EXPECT_EQ(c.path == std::string("/dev/sg3") ? "size 131072 timeout 10800000 " : "", prepared);
    kavo::os::Close(fd);
  }
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

TEST_F(OpenTest, BlockDescriptorOnlyForGenericNodesWithAKnownBlockNode) {
  int block = 5;
  EXPECT_EQ(-1, SCSI_OpenDevice(3, 0, 1, 0, 1, &block)) << "unknown device";
  EXPECT_EQ(-1, block);
  EXPECT_TRUE(world_.Opens().empty());
  for (const char* path : {"/dev/sg0", "/dev/sg1", "/dev/sr0", "/dev/hdc"})
    world_.AddNode(path, std::make_shared<fixture::DeviceNode>());
  fixture::RegisterTestDevice(0, 0, 0, 0, "/dev/sg0", "/dev/sr0");
  fixture::RegisterTestDevice(0, 0, 1, 0, "/dev/sg1");
  fixture::RegisterTestDevice(0, 0, 2, 0, "/dev/hdc", "/dev/sr0");
  const int fd = SCSI_OpenDevice(0, 0, 0, 0, 0, &block);
  ASSERT_NE(-1, block);
  EXPECT_EQ("/dev/sr0", world_.Opens().back().path);
  EXPECT_EQ(O_RDONLY | O_NONBLOCK, world_.Opens().back().flags);
  kavo::os::Close(block);
  kavo::os::Close(fd);
  world_.FailOpen("/dev/sr0", ENOENT);
  for (int target : {1, 2, 0}) {
    block = 0;
    const int other = SCSI_OpenDevice(0, 0, target, 0, 0, &block);
    EXPECT_NE(-1, other);
    EXPECT_EQ(-1, block) << target;
    kavo::os::Close(other);
  }
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

TEST_F(OpenTest, BusyNodeIsRetriedTenTimesAHundredMicrosecondsApart) {
  auto node = fixture::PlaceSgDrive(world_, "/dev/sg0", 0, 0, 0, 0);
  fixture::RegisterTestDevice(0, 0, 0, 0, "/dev/sg0");
  node->RefuseOpensBusy(3);
  const int fd = SCSI_OpenDevice(0, 0, 0, 0, 0, nullptr);
  EXPECT_NE(-1, fd);
  EXPECT_EQ(4u, world_.Opens().size());
  kavo::os::Close(fd);
  world_.ClearLogs();
  world_.FailOpen("/dev/sg0", EBUSY);
  EXPECT_EQ(-1, SCSI_OpenDevice(0, 0, 0, 0, 0, nullptr));
  EXPECT_EQ(EBUSY, errno);
  EXPECT_EQ(11u, world_.Opens().size());
  EXPECT_EQ(1000u, world_.SleptMicroseconds());
  world_.ClearLogs();
  world_.FailOpen("/dev/sg0", ENOENT);
  EXPECT_EQ(-1, SCSI_OpenDevice(0, 0, 0, 0, 0, nullptr));
  EXPECT_EQ(1u, world_.Opens().size()) << "only EBUSY is retried";
}

// Which node an exclusive open unmounts: a generic drive's block node, an
// IDE drive's own node; none for a generic drive without a block node, and
// none unless exclusive use is asked for with exactly 1.
TEST_F(OpenTest, ExclusiveOpenUnmountsTheRightNode) {
  fixture::PlaceSgDrive(world_, "/dev/sg0", 0, 0, 0, 0);
  world_.AddNode("/dev/hdc", std::make_shared<fixture::DeviceNode>());
  fixture::RegisterTestDevice(0, 0, 0, 0, "/dev/sg0", "/dev/sr0");
  fixture::RegisterTestDevice(0, 0, 1, 0, "/dev/hdc");
  fixture::RegisterTestDevice(0, 0, 2, 0, "/dev/sg0");
  struct Case {
    int target, exclusive;
    bool mtab;  // without one everything counts as mounted
    Lines commands;
    int flags;
  } cases[] = {{0, 1, true, {kUmount}, O_RDWR | O_NONBLOCK | O_EXCL},
               {1, 1, true, {"umount /dev/hdc > /dev/null 2>&1"}, O_RDWR | O_NONBLOCK | O_EXCL},
               {2, 1, false, {}, O_RDWR | O_NONBLOCK | O_EXCL},
               {0, 2, false, {}, O_RDWR | O_NONBLOCK}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.target);
    world_.ClearLogs();
    world_.AddFile("/etc/mtab", "/dev/sr0 /media/cdrom iso9660 ro 0 0\n/dev/hdc /media/dvd udf ro 0 0\n");
    if (!c.mtab) world_.Remove("/etc/mtab");
    world_.SetShellHook([this](const std::string&) {
      world_.AddFile("/etc/mtab", "");
      return 0;
    });
    const int fd = SCSI_OpenDevice(0, 0, c.target, 0, c.exclusive, nullptr);
    EXPECT_NE(-1, fd);
    EXPECT_EQ(c.commands, world_.ShellCommands());
    EXPECT_EQ(c.flags, world_.Opens().back().flags);
    kavo::os::Close(fd);
  }
}

TEST_F(OpenTest, LockWaitsForTheHolderAndIsRecursive) {
  EXPECT_EQ(0, SCSI_LockDevice(0, 0, 5, 0)) << "a vanished device returns at once";
  EXPECT_EQ(1, SCSI_UnlockDevice(0, 0, 5, 0));
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
                 "/dev/sr0 /media/a iso9660 ro 0 0\n/dev/sr10 /media/b udf ro 0 0\n/dev/cdrom /media/c iso9660 ro 0 0\n"
                 "/dev/dvd /media/d udf ro 0 0\n/dev/sr2\n/dev/sda1 / ext4 rw 0 0\n");
  EXPECT_EQ(2, SCSI_CountMounts("/dev/sr0"));  // its own line and /dev/dvd's target
  EXPECT_EQ(1, SCSI_CountMounts("/dev/sr1"));  // /dev/sr10
  EXPECT_EQ(1, SCSI_CountMounts("sr0"));       // the relative target text, not resolved
  EXPECT_EQ(0, SCSI_CountMounts("/dev/cdrom"));
  EXPECT_EQ(1, SCSI_CountMounts("/dev/sr2"));  // a line without a blank is its own field
  EXPECT_EQ(4, SCSI_CountMounts("/dev/sr"));
  world_.AddFile("/etc/mtab", std::string(8190, 'x') + "/dev/sr0 /media iso9660 ro 0 0\n");
  EXPECT_EQ(1, SCSI_CountMounts("/dev/sr0")) << "long lines arrive in pieces of 8190";
  world_.AddFile("/etc/mtab", std::string(8189, 'x') + "/dev/sr0 /media iso9660 ro 0 0\n");
  EXPECT_EQ(0, SCSI_CountMounts("/dev/sr0"));
  world_.Remove("/etc/mtab");
  EXPECT_EQ(1, SCSI_CountMounts("/dev/anything"));
}

// umount runs once per mount; each later tool runs only while the drive
// still counts as mounted.
TEST_F(MountTest, ChainStopsWhenNothingIsLeftMounted) {
  world_.AddFile("/etc/mtab", "/dev/sda1 / ext4 rw 0 0\n/dev/sr1 /media iso9660 ro 0 0\n");
  SCSI_UnmountVolumes("/dev/sr0");
  EXPECT_TRUE(world_.ShellCommands().empty());

  int mounts = 2;
  world_.SetShellHook([&](const std::string& command) {
    if (command.compare(0, 7, "umount ") == 0 && mounts > 0) --mounts;
    world_.AddFile("/etc/mtab", mounts == 2 ? "/dev/sr0 a\n/dev/sr0 b\n" : mounts == 1 ? "/dev/sr0 b\n" : "");
    return 0;
  });
  world_.AddFile("/etc/mtab", "/dev/sr0 /media/a iso9660 ro 0 0\n/dev/sr0 /media/b udf ro 0 0\n");
  SCSI_UnmountVolumes("/dev/sr0");
  EXPECT_EQ((Lines{kUmount, kUmount}), world_.ShellCommands());

  world_.ClearLogs();
  world_.AddFile("/etc/mtab", "/dev/sr0 /media/a iso9660 ro 0 0\n");
  world_.SetShellHook([&](const std::string& command) {
    if (command.compare(0, 8, "pumount ") == 0) world_.AddFile("/etc/mtab", "");
    return 1;
  });
  SCSI_UnmountVolumes("/dev/sr0");
  EXPECT_EQ((Lines{kUmount, kPumount}), world_.ShellCommands());
}

TEST_F(MountTest, WithoutAMountTableEveryToolRunsOnceInOrder) {
  SCSI_UnmountVolumes("/dev/sr0");
  EXPECT_EQ((Lines{kUmount, kPumount,
                   "dbus-send --print-reply --system --dest=org.freedesktop.Hal `hal-find-by-property --key "
                   "\"block.device\" --string \"/dev/sr0\" | grep /volume | head -n1` "
                   "org.freedesktop.Hal.Device.Volume.Unmount array:string:  > /dev/null 2>&1",
                   "gnome-mount --no-ui --unmount --device /dev/sr0 > /dev/null 2>&1",
                   "dcop kded mediamanager unmount `dcop kded mediamanager properties /dev/sr0 2>/dev/null | head -n "
                   "1` >/dev/null 2>&1"}),
            world_.ShellCommands());
}

}  // namespace
