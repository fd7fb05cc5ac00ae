/* An ASPI application in C, built only against the installed header: the
 * inquiry of the adapter past the last one, byte for byte, and an unknown
 * command, left untouched. */
#include <stdio.h>
#include <string.h>

#include <kavoaspi.h>

int main(void) {
  unsigned support = GetASPI32SupportInfo(), count = support & 0xFF;
  SRB_HAInquiry inquiry;
  unsigned char expected[60] = {SC_HA_INQUIRY, SS_COMP, (unsigned char)count, 0, 0xAA, 0xAA, 0xAA, 0xAA, 2, 7};
  unsigned char block[80], untouched[80];
  memset(&inquiry, 0xAA, sizeof inquiry);
  inquiry.SRB_Cmd = SC_HA_INQUIRY;
  inquiry.SRB_HaId = (unsigned char)count; /* never named */
  inquiry.SRB_Flags = 0;
  unsigned inquired = SendASPI32Command(&inquiry);
  memcpy(expected + 10, "Linux ASPI", 10); /* then the name, 8 targets and 0x20000 bytes a transfer */
  memcpy(expected + 26, "unknown", 7);
  expected[45] = 8;
  expected[48] = 2;
  expected[58] = expected[59] = 0xAA; /* reserved, kept */
  memset(block, 0x5C, sizeof block);
  block[0] = 0x03; /* abort: not served */
  memcpy(untouched, block, sizeof block);
  unsigned refused = SendASPI32Command(block);
  int ok = (support & 0xFF00) == 0x0100 && inquired == SS_COMP && memcmp(&inquiry, expected, 60) == 0 &&
           refused == SS_INVALID_SRB && memcmp(block, untouched, sizeof block) == 0;
  printf("c client: %u adapters, support %#x, inquiry %#x, abort %#x: %s\n", count, support, inquired, refused,
         ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
