// The node walk's limits and the presence probe built on it.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "device/registry_internal.h"
#include "discovery/init_internal.h"
#include "discovery/scan_internal.h"
#include "tests/fixture/machines.h"

namespace {

class NodeWalk : public ::testing::Test {
 protected:
  void SetUp() override { SCSI_ResetDiscoveryState(); }
  void TearDown() override { SCSI_ResetDiscoveryState(); }

  // The node paths a walk over /dev/sg opened, and the ones it handed on.
  std::vector<std::string> Walk() {
    std::vector<std::string> taken;
    SCSI_WalkDeviceNodes(SCSI_MakeSgDeviceName, O_RDONLY | O_NONBLOCK,
                         [&](int, char const* path, const SCSI_NodeAddress&) {
                           taken.push_back(path);
                           return false;
                         });
    return taken;
  }
  std::string LastOpened() const { return world.Opens().empty() ? "" : world.Opens().back().path; }

  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope{world};
};

TEST(SgDeviceName, IsDecimal) {
  char path[kDeviceNodePathSize];
  SCSI_MakeSgDeviceName(path, 0);
  EXPECT_STREQ("/dev/sg0", path);
  SCSI_MakeSgDeviceName(path, 999);
  EXPECT_STREQ("/dev/sg999", path);
}

TEST_F(NodeWalk, EndsAfterSixteenCountedFailures) {
  for (int n = 0; n < 3; ++n) fixture::AddGenericNode(world, n, 0, 0, n, 0);
  EXPECT_EQ((std::vector<std::string>{"/dev/sg0", "/dev/sg1", "/dev/sg2"}), Walk());
  EXPECT_EQ(19u, world.Opens().size());
  EXPECT_EQ("/dev/sg18", LastOpened());
}

TEST_F(NodeWalk, FailuresAccumulateOverGapsBetweenNodes) {
  fixture::AddGenericNode(world, 10, 0, 0, 0, 0);
  fixture::AddGenericNode(world, 20, 0, 0, 1, 0);
  EXPECT_EQ((std::vector<std::string>{"/dev/sg10"}), Walk()) << "ten failures before sg10, six more end the walk";
  EXPECT_EQ("/dev/sg16", LastOpened());
}

TEST_F(NodeWalk, BusyAndForbiddenNodesAreSkippedWithoutCounting) {
  for (int n = 0; n < 6; ++n) {
    fixture::AddGenericNode(world, n, 0, 0, n, 0);
    world.FailOpen("/dev/sg" + std::to_string(n), n % 2 == 0 ? EBUSY : EACCES);
  }
  fixture::AddGenericNode(world, 6, 0, 0, 6, 0);
  EXPECT_EQ((std::vector<std::string>{"/dev/sg6"}), Walk());
  EXPECT_EQ("/dev/sg22", LastOpened());
}

TEST_F(NodeWalk, NodeWithoutAnAddressCountsAndIsClosed) {
  for (int n = 0; n < 20; ++n) fixture::AddGenericNode(world, n, 0, 0, n, 0)->answersAddress_ = false;
  EXPECT_TRUE(Walk().empty());
  EXPECT_EQ("/dev/sg15", LastOpened());
  EXPECT_EQ(0, world.OpenDescriptorCount());
}

TEST_F(NodeWalk, VisitorEndsTheWalkAndEveryTakenNodeIsClosed) {
  for (int n = 0; n < 5; ++n) fixture::AddGenericNode(world, n, 0, 0, n, 0);
  int visits = 0;
  SCSI_WalkDeviceNodes(SCSI_MakeSgDeviceName, O_RDONLY, [&](int fd, char const*, const SCSI_NodeAddress& address) {
    EXPECT_GE(fd, 0);
    ++visits;
    return address.target == 2;
  });
  EXPECT_EQ(3, visits);
  EXPECT_EQ("/dev/sg2", LastOpened());
  EXPECT_EQ(0, world.OpenDescriptorCount());
}

class PresenceProbe : public NodeWalk {
 protected:
  void SetUp() override {
    NodeWalk::SetUp();
    IsKernel26 = 1;
  }
};

TEST_F(PresenceProbe, AnswersFromTheRegistryWithoutOpeningNodes) {
  IdeAdapterCount = 2;
  SCSI_RegisterDevice(SCSI_MakeDeviceKey(3, 0, 4, 0), SCSI_NewDeviceProperties("/dev/sg9"));
  EXPECT_TRUE(SCSI_IsDevicePresent(1, 0, 4, 0)) << "Linux host 1 is ASPI adapter 3";
  EXPECT_TRUE(world.Opens().empty());
}

TEST_F(PresenceProbe, FindsAnUnregisteredDriveThroughItsGenericNode) {
  fixture::AddGenericNode(world, 0, 0, 0, 0, 0);
  fixture::AddGenericNode(world, 1, 2, 1, 3, 4);
  EXPECT_TRUE(SCSI_IsDevicePresent(2, 1, 3, 4));
  EXPECT_EQ("/dev/sg1", LastOpened());
  for (const fixture::OpenRecord& open : world.Opens()) EXPECT_EQ(O_RDONLY | O_NONBLOCK, open.flags);
  EXPECT_TRUE(DevicesMap.empty()) << "the probe registers nothing";
  EXPECT_FALSE(SCSI_IsDevicePresent(2, 0, 3, 4)) << "another channel";
  EXPECT_FALSE(SCSI_IsDevicePresent(3, 1, 3, 4)) << "another host";
  EXPECT_EQ(0, world.OpenDescriptorCount());
}

TEST_F(PresenceProbe, IgnoresIdeScsiNodesOnNewKernels) {
  SCSI_RegisterAdapter(0, "ide-scsi", 1);
  fixture::AddGenericNode(world, 0, 0, 0, 0, 0);
  EXPECT_FALSE(SCSI_IsDevicePresent(0, 0, 0, 0));
  IsKernel26 = 0;
  EXPECT_TRUE(SCSI_IsDevicePresent(0, 0, 0, 0));
}

}  // namespace
