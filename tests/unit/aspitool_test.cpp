// aspitool's failures in words, which the drives of a real machine will not
// produce on demand.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include "aspi/srb.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "tests/fixture/emulated_drive.h"
#include "tools/aspitool_commands.h"

namespace {

// What aspitool writes to out (or err) for its arguments.
std::string RunTool(std::vector<const char*> arguments, bool errors) {
  arguments.insert(arguments.begin(), "aspitool");
  char *outText = nullptr, *errText = nullptr;
  size_t outSize = 0, errSize = 0;
  FILE* out = open_memstream(&outText, &outSize);
  FILE* err = open_memstream(&errText, &errSize);
  aspitool_main(static_cast<int>(arguments.size()), const_cast<char**>(arguments.data()), out, err);
  fclose(out);
  fclose(err);
  const std::string text = errors ? std::string(errText, errSize) : std::string(outText, outSize);
  free(outText);
  free(errText);
  return text;
}

TEST(Aspitool, FailuresAreShownInWords) {
  GetASPI32SupportInfo();  // the once-only initialisation is behind us
  SCSI_ResetDiscoveryState();
  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope(world);
  world.Load("drives");
  SCSI_Init();
  const std::string failed = " failed: ASPI status 0x04 (completed with error), sense key ";
  const struct {
    const char* drive;  // fails with HARDWARE ERROR (0x04) or NOT READY (0x02), or "" none
    unsigned char key;
    std::vector<const char*> arguments;
    bool errors;
    std::string text;
  } rows[] = {
      {"/dev/sg1", 0x04, {"scan"}, false, "  3:4:0  INQUIRY" + failed + "0x4 (HARDWARE ERROR), ASC/ASCQ 44/00\n"},
      {"", 0, {"inquiry", "1:0:0"}, false, "  ANSI version      0\n"},  // as corrected behind an emulated host
      {"", 0, {"inquiry", "2:0:0"}, true, "aspitool: INQUIRY of 2:0:0 failed: ASPI status 0x82 (no device)\n"},
      {"", 0, {"read", "1:0:0", "14", "4"}, true,
       "aspitool: READ(10) of 1:0:0 at LBA 14" + failed + "0x5 (ILLEGAL REQUEST), ASC/ASCQ 21/00 (logical block "
       "address out of range)\n"},
      {"/dev/hdc", 0x02, {"toc", "0:0:0"}, true,
       "aspitool: READ TOC of 0:0:0" + failed + "0x2 (NOT READY), ASC/ASCQ 3A/00 (medium not present)\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.arguments[0]);
    if (*row.drive) fixture::DriveAt(world, row.drive).FailNextWithSense(row.key, row.key == 2 ? 0x3A : 0x44, 0);
    const std::string text = RunTool(row.arguments, row.errors);
    EXPECT_NE(std::string::npos, text.find(row.text)) << text;
  }
  SCSI_ResetDiscoveryState();
}

}  // namespace
