// A C++ application built only against the installed headers: it uses the
// exported runtime classes the way ASPI programs do (an event it constructs
// itself for SRB_EVENT_NOTIFY, the string class, the bounded functions) and
// proves that the headers stand alone and the classes link.
#include <stdio.h>
#include <string.h>

#include <kavoaspi.h>

static int failures = 0;

static void Expect(bool condition, const char* what) {
  if (!condition) {
    printf("FAILED: %s\n", what);
    ++failures;
  }
}

int main() {
  CPosixEvent done(0, 0);
  SRB_ExecSCSICmd request;
  memset(&request, 0, sizeof request);
  request.SRB_Cmd = SC_EXEC_SCSI_CMD;
  request.SRB_HaId = 200;  // no such adapter
  request.SRB_Flags = SRB_EVENT_NOTIFY;
  request.SRB_CDBLen = 6;  // TEST UNIT READY
  request.SRB_PostProc = &done;
  Expect(SendASPI32Command(&request) == SS_PENDING, "an execute request returns SS_PENDING");
  Expect(done.WaitForEvent(0) == 1, "the event is already set when the call returns");
  Expect(request.SRB_Status == SS_NO_DEVICE, "a missing device completes with SS_NO_DEVICE");
  Expect(ASPI_OpenDevice(&request) == nullptr && CThread::GetThread() == nullptr, "no worker, no thread object");

  CBasicString<char> deviceKey;
  deviceKey.Format("h%02dc%02dt%02dd%02d", 3, 0, 1, 0);
  Expect(strcmp(deviceKey.GetString(), "h03c00t01d00") == 0, "the string class formats across the library boundary");

  char small[4];
  Expect(strcpy_s(small, sizeof small, "abcd") == 34 && small[0] == 0, "strcpy_s reports ERANGE and empties");

  CPosixMutex mutex(0);
  Expect(mutex.Lock(0) == 1 && mutex.Unlock() == 1, "an application's own mutex");

  printf("c++ client: %s\n", failures ? "FAILED" : "ok");
  return failures ? 1 : 0;
}
