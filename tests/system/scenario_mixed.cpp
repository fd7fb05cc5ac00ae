// Beside the other architecture's aspitool: both number the drives alike, and a drive this one holds
// keeps the other out until released.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

#include <set>
#include <string>

#include "aspi/srb.h"

namespace {

#if defined(__x86_64__)
const char kOther[] = "/opt/kavo/bin/aspitool";  // the 32-bit one
#else
const char kOther[] = "/opt/kavo/bin64/aspitool";
#endif

int failures;

void Check(const std::string& what, bool ok, const std::string& got = "") {
  printf(ok ? "ok - %s\n" : "not ok - %s: got %s\n", what.c_str(), got.c_str());
  fflush(stdout);
  failures += !ok;
}

// The other aspitool's exit status and output (standard error too).
int RunOther(const std::string& arguments, std::string* output) {
  FILE* pipe = popen((std::string(kOther) + " " + arguments + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return -1;
  char line[512];
  output->clear();
  while (fgets(line, sizeof line, pipe) != nullptr) *output += line;
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The addresses where this process finds a device (GET DEVICE TYPE), as "A:T:L".
std::set<std::string> OwnDevices() {
  std::set<std::string> found;
  const int adapters = GetASPI32SupportInfo() & 0xFF;
  for (int adapter = 0; adapter < adapters; ++adapter)
    for (int target = 0; target < 16; ++target) {
      SRB_GDEVBlock block = {};
      block.SRB_Cmd = SC_GET_DEV_TYPE, block.SRB_HaId = adapter, block.SRB_Target = target;
      if (SendASPI32Command(&block) == SS_COMP) found.insert(std::to_string(adapter) + ":" + std::to_string(target) + ":0");
    }
  return found;
}

// The addresses of the device lines of aspitool scan ("  A:T:L  /dev/sgN ...").
std::set<std::string> ScannedDevices(const std::string& scan) {
  std::set<std::string> found;
  for (size_t at = 0; (at = scan.find("\n  ", at)) != std::string::npos; ++at) {
    unsigned a, t, l;
    if (sscanf(scan.c_str() + at + 3, "%u:%u:%u", &a, &t, &l) == 3)
      found.insert(std::to_string(a) + ":" + std::to_string(t) + ":" + std::to_string(l));
  }
  return found;
}

std::string Joined(const std::set<std::string>& addresses) {
  std::string text;
  for (const std::string& address : addresses) text += address + " ";
  return text;
}

}  // namespace

int main() {
  const std::string self = sizeof(void*) == 8 ? "64-bit" : "32-bit";
  std::string output;
  const std::set<std::string> own = OwnDevices();
  const int scanned = RunOther("scan", &output);
  Check(self + " program and the other architecture's aspitool number the same devices",
        scanned == 0 && own.size() >= 8 && ScannedDevices(output) == own, Joined(ScannedDevices(output)) + "against " + Joined(own));

  Check(self + " program holds 0:0:0", ASPI_setExclusiveMode(0, 0) == 0);
  const int refused = RunOther("inquiry 0:0:0", &output);
  Check("the other architecture's aspitool is kept out of the held drive",
        refused == 1 && output.find("is in use by another program, which holds it") != std::string::npos, output);
  SRB_GDEVBlock mine = {};
  mine.SRB_Cmd = SC_GET_DEV_TYPE;
  Check(self + " program still reaches the drive it holds", SendASPI32Command(&mine) == SS_COMP);
  Check(self + " program releases 0:0:0", ASPI_unsetExclusiveMode(0, 0) == 0);
  const int served = RunOther("inquiry 0:0:0", &output);
  Check("after the release the other architecture's aspitool reaches it",
        served == 0 && output.find("QEMU") != std::string::npos, output);
  return failures ? 1 : 0;
}
