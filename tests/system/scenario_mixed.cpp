// Beside the other architecture's aspitool: a drive this one holds keeps the other out until
// released (scenario-aspitool compares the two architectures' scans).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

#include <string>

#include "aspi/srb.h"

namespace {

const std::string kOther = sizeof(void*) == 8 ? "/opt/kavo/bin/aspitool" : "/opt/kavo/bin64/aspitool";

int failures;

void Check(const std::string& what, bool ok, const std::string& got = "") {
  printf(ok ? "ok - %s\n" : "not ok - %s: got %s\n", what.c_str(), got.c_str());
  fflush(stdout);
  failures += !ok;
}

// The other aspitool's exit status and output (standard error too).
int RunOther(const std::string& arguments, std::string* output) {
  FILE* pipe = popen((kOther + " " + arguments + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return -1;
  char line[512];
  output->clear();
  while (fgets(line, sizeof line, pipe) != nullptr) *output += line;
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int main() {
  const std::string self = sizeof(void*) == 8 ? "64-bit" : "32-bit";
  std::string output;
  GetASPI32SupportInfo();  // builds the registry, which exclusive mode does not
  Check(self + " program holds 0:0:0", ASPI_setExclusiveMode(0, 0) == 0);
  const int refused = RunOther("inquiry 0:0:0", &output);
  Check("the other architecture's aspitool is kept out of the held drive",
        refused == 1 && output.find("is in use by another program, which holds it") != std::string::npos, output);
  SRB_GDEVBlock mine = {};
  mine.SRB_Cmd = SC_GET_DEV_TYPE;
  Check(self + " program still reaches the drive it holds, then releases it",
        SendASPI32Command(&mine) == SS_COMP && ASPI_unsetExclusiveMode(0, 0) == 0);
  const int served = RunOther("inquiry 0:0:0", &output);
  Check("after the release the other architecture's aspitool reaches it",
        served == 0 && output.find("QEMU") != std::string::npos, output);
  return failures ? 1 : 0;
}
