// The SG transport against the emulated generic driver; data, faults and
// statuses through it are covered end to end by the execute tests.
#include "device/transport.h"

#include <fcntl.h>
#include <scsi/sg.h>

#include "gtest/gtest.h"
#include "runtime/os.h"
#include "tests/fixture/emulated_drive.h"

namespace {

using fixture::EmulatedDrive;

const unsigned int kHeader = sizeof(sg_header);

std::vector<int> NextCommandLengths(const fixture::FixtureWorld& world) {
  std::vector<int> values;
  for (const fixture::IoctlRecord& record : world.Ioctls())
    if (record.request == SG_NEXT_CMD_LEN) values.push_back(record.value);
  return values;
}

class TransportTest : public ::testing::Test {
 protected:
  TransportTest() : scope_(world_) {
    node_ = fixture::PlaceSgDrive(world_, "/dev/sg0", 0, 0, 0, 0);
    fd_ = kavo::os::Open("/dev/sg0", O_RDWR);
  }
  ~TransportTest() override { kavo::os::Close(fd_); }

  // One INQUIRY exchange with room for dataIn bytes after the reply header.
  int Exchange(unsigned int dataIn, unsigned int& bytesRead) {
    unsigned char request[kHeader + 6] = {0};
    request[kHeader] = 0x12;
    reply_.assign(kHeader + dataIn, 0xEE);
    reinterpret_cast<sg_header*>(request)->reply_len = static_cast<int>(reply_.size());
    return SCSI_LinuxDeviceIo(fd_, reinterpret_cast<sg_header*>(request), sizeof request,
                              reinterpret_cast<sg_header*>(reply_.data()), static_cast<unsigned int>(reply_.size()),
                              &bytesRead);
  }

  std::vector<unsigned char> reply_;
  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_;
  std::shared_ptr<fixture::SgNode> node_;
  int fd_;
};

// A node that takes every write and fails every read.
class DeafNode : public fixture::DeviceNode {
 public:
  ssize_t OnWrite(int, const void*, size_t count) override { return static_cast<ssize_t>(count); }
};

TEST_F(TransportTest, ShortOrFailedWritesAndReadsFail) {
  unsigned int bytesRead = 77;
  node_->drive().FailNext(EmulatedDrive::Fault::ShortWrite);
  EXPECT_EQ(0, Exchange(0, bytesRead));
  EXPECT_EQ(0u, bytesRead);
  EXPECT_EQ(0xEE, reply_[0]);  // nothing was read
  node_->drive().FailNext(EmulatedDrive::Fault::ShortRead);
  EXPECT_EQ(0, Exchange(36, bytesRead));
  EXPECT_EQ(kHeader + 35, bytesRead);
  world_.AddNode("/dev/sg9", std::make_shared<DeafNode>());
  kavo::os::Close(fd_);
  fd_ = kavo::os::Open("/dev/sg9", O_RDWR);
  EXPECT_EQ(0, Exchange(0, bytesRead));
  EXPECT_EQ(0xFFFFFFFFu, bytesRead) << "a failed read stores all ones";
}

TEST_F(TransportTest, CommandLengthIsSetOnlyWhereTheGroupDefaultDiffers) {
  const int groupDefault[8] = {6, 10, 10, 12, 12, 12, 10, 10};
  for (int group = 0; group < 8; ++group) {
    const int opcode = (group << 5) | 0x08;
    world_.ClearLogs();
    SCSI_Fix_CMD_LEN(fd_, opcode, groupDefault[group]);
    EXPECT_TRUE(NextCommandLengths(world_).empty()) << "group " << group;
    SCSI_Fix_CMD_LEN(fd_, opcode, groupDefault[group] == 6 ? 10 : 6);
    EXPECT_EQ(std::vector<int>{groupDefault[group] == 6 ? 10 : 6}, NextCommandLengths(world_)) << "group " << group;
  }
}

TEST(IsAdapterTest, MatchesTheWholeDecimalNameOnly) {
  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope(world);
  world.AddFile("/proc/scsi/sr_mod/0", "");
  world.AddFile("/proc/scsi/sr_mod/1", "");
  world.AddFile("/proc/scsi/sr_mod/10", "");
  world.AddFile("/proc/scsi/usb/10", "");
  char both[] = "/proc/scsi/sr_mod", onlyTen[] = "/proc/scsi/usb", missing[] = "/proc/scsi/none";
  EXPECT_EQ(1, SCSI_isadapter(10, both));
  EXPECT_EQ(0, SCSI_isadapter(2, both));
  EXPECT_EQ(0, SCSI_isadapter(1, onlyTen));
  EXPECT_EQ(1, SCSI_isadapter(10, onlyTen));
  EXPECT_EQ(0, SCSI_isadapter(0, missing));
}

}  // namespace
