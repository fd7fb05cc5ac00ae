/* aspitool: the library's view of this machine, through ASPI exactly as an
 * application sees it (public header, dynamic linking). */
#include <stdio.h>
#include <string.h>

#include "aspi/srb.h"

static int scan(void) {
  unsigned int support = GetASPI32SupportInfo();
  int count = (int)(support & 0xFF);
  int adapter;
  if (count == 0) {
    printf("No host adapters found.\n");
    return 0;
  }
  printf("%d host adapter%s\n", count, count == 1 ? "" : "s");
  for (adapter = 0; adapter < count; ++adapter) {
    SRB_HAInquiry inquiry;
    char name[17];
    memset(&inquiry, 0, sizeof inquiry);
    inquiry.SRB_Cmd = SC_HA_INQUIRY;
    inquiry.SRB_HaId = (unsigned char)adapter;
    SendASPI32Command(&inquiry);
    memcpy(name, inquiry.HA_Identifier, 16);
    name[16] = 0;
    printf("  adapter %d: %s\n", adapter, name);
  }
  return 0;
}

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "scan") == 0) return scan();
  fprintf(stderr, "usage: aspitool scan\n");
  return 2;
}
