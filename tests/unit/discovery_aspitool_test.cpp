// aspitool's commands against fixture machines, through the ASPI entry
// points as the tool uses them.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <initializer_list>

#include "aspi/srb.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "tests/fixture/machines.h"
#include "tools/aspitool_commands.h"

namespace {

struct ToolRun {
  int status;
  std::string out, err;
};

class Aspitool : public ::testing::Test {
 protected:
  void SetUp() override {
    GetASPI32SupportInfo();  // the once-only initialisation is behind us
    SCSI_ResetDiscoveryState();
  }
  void TearDown() override { SCSI_ResetDiscoveryState(); }

  ToolRun Run(std::initializer_list<const char*> arguments) {
    std::vector<char*> argv{const_cast<char*>("aspitool")};
    for (const char* argument : arguments) argv.push_back(const_cast<char*>(argument));
    char *outText = nullptr, *errText = nullptr;
    size_t outSize = 0, errSize = 0;
    FILE* out = open_memstream(&outText, &outSize);
    FILE* err = open_memstream(&errText, &errSize);
    ToolRun run;
    run.status = aspitool_main(static_cast<int>(argv.size()), argv.data(), out, err);
    fclose(out);
    fclose(err);
    run.out.assign(outText, outSize);
    run.err.assign(errText, errSize);
    free(outText);
    free(errText);
    return run;
  }

  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope{world};
};

class AspitoolWithDrives : public Aspitool {
 protected:
  void SetUp() override {
    Aspitool::SetUp();
    machine = fixture::BuildMachineWithEmulatedDrives(world);
    SCSI_Init();
  }

  fixture::DriveMachine machine;
};

TEST_F(AspitoolWithDrives, ScanListsEveryDeviceWithItsInquiryData) {
  const std::string drive = "  CD/DVD          KAVO      EMULATED DRIVE    1.00\n";
  EXPECT_EQ("4 host adapters\nadapter 0: ide-cdrom (IDE adapter)\n  0:0:0" + drive +
                "adapter 1: ata_piix (emulated SCSI host)\n  1:0:0" + drive +
                "adapter 2: unknown (no adapter at this number)\n  no devices\n"
                "adapter 3: sym53c8xx (real SCSI host)\n  3:4:0" +
                drive,
            Run({"scan"}).out);
}

// A failed INQUIRY is shown in words in the scan, and the version behind an
// emulated host as the library corrects it.
TEST_F(AspitoolWithDrives, ScanAndInquiryShowFailuresAndTheEmulatedHostsVersion) {
  EXPECT_NE(std::string::npos, Run({"inquiry", "1:0:0"}).out.find("  ANSI version      0\n"));
  machine.scsiCd->drive().FailNextWithSense(0x04, 0x44, 0x00);
  const std::string scan = Run({"scan"}).out;
  EXPECT_NE(std::string::npos, scan.find("  3:4:0  INQUIRY failed: ASPI status 0x04 (completed with error), sense key "
                                         "0x4 (HARDWARE ERROR), ASC/ASCQ 44/00\n"))
      << scan;
  EXPECT_EQ("aspitool: INQUIRY of 2:0:0 failed: ASPI status 0x82 (no device)\n", Run({"inquiry", "2:0:0"}).err);
}

TEST_F(AspitoolWithDrives, ReadWritesTheBlocksToAFileInRequestsTheAdapterAllows) {
  const std::string path = ::testing::TempDir() + "aspitool_read.bin";
  ToolRun run = Run({"read", "3:4:0", "10", "70", path.c_str()});
  EXPECT_EQ(ASPITOOL_OK, run.status) << run.err;
  FILE* file = fopen(path.c_str(), "rb");
  ASSERT_NE(nullptr, file);
  std::string content(70 * fixture::EmulatedDrive::kBlockSize + 1, 0);
  content.resize(fread(&content[0], 1, content.size(), file));
  fclose(file);
  remove(path.c_str());
  const std::vector<unsigned char>& disc = machine.scsiCd->drive().disc;
  EXPECT_TRUE(content == std::string(disc.begin() + 10 * 2048, disc.begin() + 80 * 2048));
  std::vector<std::vector<unsigned char>> reads;
  for (const fixture::DriveCommand& command : machine.scsiCd->drive().Commands())
    if (command.cdb[0] == 0x28) reads.push_back(command.cdb);
  ASSERT_EQ(2u, reads.size()) << "131072 bytes, 64 blocks, per request";
  EXPECT_EQ((std::vector<unsigned char>{0x28, 0, 0, 0, 0, 10, 0, 0, 64, 0}), reads[0]);
  EXPECT_EQ((std::vector<unsigned char>{0x28, 0, 0, 0, 0, 74, 0, 0, 6, 0}), reads[1]);
}

TEST_F(AspitoolWithDrives, ReadAndTocReportWhereAndWhyTheyFailed) {
  EXPECT_EQ(
      "aspitool: READ(10) of 1:0:0 at LBA 14 failed: ASPI status 0x04 (completed with error), sense key 0x5 "
      "(ILLEGAL REQUEST), ASC/ASCQ 21/00 (logical block address out of range)\n",
      Run({"read", "1:0:0", "14", "4"}).err);
  machine.ideDvd->drive().FailNextWithSense(0x02, 0x3A, 0x00);
  EXPECT_EQ(
      "aspitool: READ TOC of 0:0:0 failed: ASPI status 0x04 (completed with error), sense key 0x2 (NOT READY), "
      "ASC/ASCQ 3A/00 (medium not present)\n",
      Run({"toc", "0:0:0"}).err);
  EXPECT_EQ((std::vector<unsigned char>{0x43, 0, 0, 0, 0, 0, 0, 0x03, 0x24, 0, 0, 0}),
            machine.ideDvd->drive().Commands().back().cdb);
}

TEST(AspitoolToc, ListsTracksAndLeadOut) {
  const unsigned char toc[] = {0x00, 0x1A, 1,    2,                              // 26 bytes follow: 3 descriptors
                               0,    0x10, 1,    0,    0x00, 0x00, 0x00, 0x00,   // audio track 1 at 0
                               0,    0x14, 2,    0,    0x00, 0x00, 0x30, 0x39,   // data track 2 at 12345
                               0,    0x14, 0xAA, 0,    0x00, 0x01, 0x86, 0xA0,   // lead-out at 100000
                               0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};  // beyond the stated length
  char* text = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&text, &size);
  EXPECT_EQ(1, aspitool_print_toc(out, toc, sizeof toc));
  const unsigned char empty[] = {0x00, 0x00, 0, 0};
  EXPECT_EQ(0, aspitool_print_toc(out, empty, sizeof empty));
  fclose(out);
  EXPECT_EQ(std::string("tracks 1 to 2\n"
                        "  track   1  audio LBA 0\n"
                        "  track   2  data  LBA 12345\n"
                        "  lead-out        LBA 100000\n"),
            std::string(text, size));
  free(text);
}

}  // namespace
