/* An ASPI application in C, built only against the installed header: the
 * adapter count and the inquiry of the adapter past the last one. */
#include <stdio.h>
#include <string.h>

#include <kavoaspi.h>

int main(void) {
  unsigned support = GetASPI32SupportInfo(), count = support & 0xFF;
  SRB_HAInquiry inquiry = {.SRB_Cmd = SC_HA_INQUIRY, .SRB_HaId = (unsigned char)count};
  unsigned inquired = SendASPI32Command(&inquiry);
  int ok = (support & 0xFF00) == 0x0100 && inquired == SS_COMP && inquiry.HA_Count == 2 &&
           inquiry.HA_SCSI_ID == 7 && memcmp(inquiry.HA_ManagerId, "Linux ASPI\0", 11) == 0 &&
           memcmp(inquiry.HA_Identifier, "unknown\0", 8) == 0 && inquiry.HA_Unique[3] == 8 &&
           inquiry.HA_Unique[6] == 2;
  printf("c client: %u adapters, support %#x, inquiry %#x, \"%.16s\": %s\n", count, support, inquired,
         (const char*)inquiry.HA_Identifier, ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
