// A C++ application on the installed headers: its own event for SRB_EVENT_NOTIFY, the string class, a bounded
// function, its own text for unnamed adapters in the exported pointer (without PIE: the application's copy).
#include <stdio.h>
#include <string.h>

#include <kavoaspi.h>

int main() {
  CPosixEvent done(0, 0);
  SRB_ExecSCSICmd request = {};
  request.SRB_Cmd = SC_EXEC_SCSI_CMD, request.SRB_HaId = 200;     // no such adapter
  request.SRB_Flags = SRB_EVENT_NOTIFY, request.SRB_CDBLen = 6;  // TEST UNIT READY
  request.SRB_PostProc = &done;
  CBasicString<char> deviceKey;
  deviceKey.Format("h%02dc%02dt%02dd%02d", 3, 0, 1, 0);
  char small[4];
  static char unnamed[] = "none here";
  pszUnknownHA = unnamed;
  const bool ok = SendASPI32Command(&request) == SS_PENDING && done.WaitForEvent(0) == 1 &&
                  request.SRB_Status == SS_NO_DEVICE && strcmp(deviceKey.GetString(), "h03c00t01d00") == 0 &&
                  strcpy_s(small, sizeof small, "abcd") == 34 && small[0] == 0 &&  // ERANGE, emptied
                  ASPI_OpenDevice(&request) == nullptr && CThread::GetThread() == nullptr &&
                  SCSI_GetAdapterName(200) == unnamed;
  printf("c++ client: status %#x, key %s, small \"%s\": %s\n", request.SRB_Status, deviceKey.GetString(), small,
         ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
