// The node walk's limits and the presence probe built on it.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "device/registry_internal.h"
#include "discovery/init_internal.h"
#include "discovery/scan_internal.h"
#include "tests/fixture/machines.h"

namespace {

class NodeWalk : public ::testing::Test {
 protected:
  void SetUp() override {
    SCSI_ResetDiscoveryState();
    IsKernel26 = 1;
  }
  void TearDown() override { SCSI_ResetDiscoveryState(); }

  // The nodes a walk over /dev/sg hands on; it stops at stopTarget.
  std::vector<std::string> Walk(int stopTarget = -1) {
    std::vector<std::string> taken;
    SCSI_WalkDeviceNodes(SCSI_MakeSgDeviceName, O_RDONLY, [&](int, char const* path, const SCSI_NodeAddress& at) {
      taken.push_back(path);
      return at.target == stopTarget;
    });
    EXPECT_EQ(0, world.OpenDescriptorCount());
    return taken;
  }
  std::string LastOpened() const { return world.Opens().back().path; }

  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope{world};
};

TEST_F(NodeWalk, EndsAfterSixteenFailuresCountedOverTheWholeWalk) {
  for (int n : {0, 1, 2, 12}) fixture::AddGenericNode(world, n, 0, 0, n, 0);
  fixture::AddGenericNode(world, 20, 0, 0, 20, 0);
  EXPECT_EQ((std::vector<std::string>{"/dev/sg0", "/dev/sg1", "/dev/sg2", "/dev/sg12"}), Walk());
  EXPECT_EQ("/dev/sg19", LastOpened()) << "nine failures before sg12, seven after";
}

TEST_F(NodeWalk, SkipsBusyAndForbiddenNodesButCountsSilentOnes) {
  for (int n = 0; n < 6; ++n) {
    fixture::AddGenericNode(world, n, 0, 0, n, 0);
    world.FailOpen("/dev/sg" + std::to_string(n), n % 2 == 0 ? EBUSY : EACCES);
  }
  for (int n = 6; n < 30; ++n) fixture::AddGenericNode(world, n, 0, 0, n, 0)->answersAddress_ = n == 8;
  EXPECT_EQ((std::vector<std::string>{"/dev/sg8"}), Walk());
  EXPECT_EQ("/dev/sg22", LastOpened());
}

TEST_F(NodeWalk, VisitorCanEndTheWalk) {
  for (int n = 0; n < 5; ++n) fixture::AddGenericNode(world, n, 0, 0, n, 0);
  EXPECT_EQ(3u, Walk(2).size());
  EXPECT_EQ("/dev/sg2", LastOpened());
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
