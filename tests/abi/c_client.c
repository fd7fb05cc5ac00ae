/* An ASPI application in C, built only against the installed header: it
 * asks for the adapter count, inquires host adapter 0 and sends an unknown
 * command, and checks every byte it gets back. */
#include <stdio.h>
#include <string.h>

#include <kavoaspi.h>

static int failures = 0;

static void expect(int condition, const char* what) {
  if (!condition) {
    printf("FAILED: %s\n", what);
    ++failures;
  }
}

int main(void) {
  SRB_HAInquiry inquiry;
  unsigned char expected[60];
  unsigned char abort_block[80];
  unsigned char untouched[80];
  unsigned int support = GetASPI32SupportInfo();
  unsigned int count = support & 0xFF;
  const char* name;

  expect((support & 0xFF00) == 0x0100, "GetASPI32SupportInfo reports SS_COMP in bits 8-15");

  memset(&inquiry, 0xAA, sizeof inquiry);
  inquiry.SRB_Cmd = SC_HA_INQUIRY;
  inquiry.SRB_HaId = (unsigned char)count; /* one past the last adapter: never named */
  inquiry.SRB_Flags = 0;
  expect(SendASPI32Command(&inquiry) == SS_COMP, "host adapter inquiry returns SS_COMP");

  memset(expected, 0xAA, sizeof expected);
  expected[0] = SC_HA_INQUIRY;
  expected[1] = SS_COMP;
  expected[2] = (unsigned char)count;
  expected[3] = 0;
  expected[8] = 2;
  expected[9] = 7;
  memset(expected + 10, 0, 16);
  memcpy(expected + 10, "Linux ASPI", 10);
  name = "unknown";
  memset(expected + 26, 0, 16);
  memcpy(expected + 26, name, strlen(name));
  memset(expected + 42, 0, 16);
  expected[42 + 3] = 8;
  expected[42 + 6] = 2;
  expect(memcmp(&inquiry, expected, sizeof expected) == 0, "inquiry block byte for byte");

  memset(abort_block, 0x5C, sizeof abort_block);
  abort_block[0] = 0x03; /* abort: not served */
  memcpy(untouched, abort_block, sizeof untouched);
  expect(SendASPI32Command(abort_block) == SS_INVALID_SRB, "unknown command returns SS_INVALID_SRB");
  expect(memcmp(abort_block, untouched, sizeof untouched) == 0, "unknown command leaves the block untouched");

  printf("c client: %d adapters, %s\n", (int)count, failures ? "FAILED" : "ok");
  return failures ? 1 : 0;
}
