// A C++ application built only against the installed headers: the exported
// runtime classes as ASPI programs use them (its own event for
// SRB_EVENT_NOTIFY, the string class, the bounded functions, a mutex).
#include <stdio.h>
#include <string.h>

#include <kavoaspi.h>

int main() {
  CPosixEvent done(0, 0);
  SRB_ExecSCSICmd request = {};
  request.SRB_Cmd = SC_EXEC_SCSI_CMD;
  request.SRB_HaId = 200;  // no such adapter
  request.SRB_Flags = SRB_EVENT_NOTIFY;
  request.SRB_CDBLen = 6;  // TEST UNIT READY
  request.SRB_PostProc = &done;
  CBasicString<char> key;
  key.Format("h%02dc%02dt%02dd%02d", 3, 0, 1, 0);
  char small[4];
  CPosixMutex mutex(0);
  const bool checks[] = {
      SendASPI32Command(&request) == SS_PENDING && done.WaitForEvent(0) == 1 && request.SRB_Status == SS_NO_DEVICE,
      strcmp(key.GetString(), "h03c00t01d00") == 0,
      strcpy_s(small, sizeof small, "abcd") == 34 && small[0] == 0,  // ERANGE, emptied
      mutex.Lock(0) == 1 && mutex.Unlock() == 1,
  };
  int failed = 0;
  for (unsigned i = 0; i < sizeof checks / sizeof checks[0]; ++i)
    if (!checks[i]) printf("c++ client: check %u FAILED\n", i), ++failed;
  printf("c++ client: %s\n", failed ? "FAILED" : "ok");
  return failed ? 1 : 0;
}
