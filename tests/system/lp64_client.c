/* A 64-bit ASPI program written from the README's table of the x86_64
 * records alone, without the library's header: the host adapter inquiry,
 * then INQUIRY and READ(10) to the VM's SCSI CD drive (0:0:0), each posted
 * to a function. The data buffer and the record lie above 4 GiB, and the
 * posting function's address is checked to be there too, so a pointer
 * field the library cut to 32 bits fails. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#pragma pack(push, 1)
typedef struct {
  unsigned char cmd, status, haId, flags;
  unsigned int hdrRsvd;
  unsigned char count, scsiId, managerId[16], identifier[16], unique[16];
  unsigned short rsvd1;
} HaInquiry; /* 60 bytes */

typedef struct {
  unsigned char cmd, status, haId, flags;
  unsigned int hdrRsvd;
  unsigned char target, lun;
  unsigned short rsvd1;
  unsigned int bufLen;
  unsigned char* bufPointer; /* 16, 8 bytes */
  unsigned char senseLen, cdbLen, haStat, targStat;
  void* postProc; /* 28, 8 bytes */
  unsigned char rsvd2[20];
  unsigned char cdb[16];   /* 56 */
  unsigned char sense[16]; /* 72 */
} ExecScsiCmd;             /* 88 bytes */
#pragma pack(pop)
_Static_assert(sizeof(HaInquiry) == 60 && sizeof(ExecScsiCmd) == 88, "the README's sizes");

unsigned int SendASPI32Command(void* srb);
unsigned int GetASPI32SupportInfo(void);

static int failures, posts;
static void* postedSrb;
static void Posted(ExecScsiCmd* srb) { ++posts, postedSrb = srb; }

static void Check(const char* what, int ok) {
  printf(ok ? "ok - lp64 client: %s\n" : "not ok - lp64 client: %s\n", what);
  failures += !ok;
}

/* Sends cdb to 0:0:0 reading into the buffer; 1 when it completed, posted once. */
static int Send(ExecScsiCmd* srb, const unsigned char* cdb, int cdbLen, unsigned char* buffer, unsigned int length) {
  memset(srb, 0, sizeof *srb);
  srb->cmd = 0x02, srb->flags = 0x08 | 0x01; /* SC_EXEC_SCSI_CMD, data in, posting */
  srb->bufPointer = buffer, srb->bufLen = length, srb->senseLen = 14, srb->cdbLen = (unsigned char)cdbLen;
  srb->postProc = (void*)Posted;
  memcpy(srb->cdb, cdb, (size_t)cdbLen);
  posts = 0, postedSrb = NULL;
  return SendASPI32Command(srb) == 0x00 && srb->status == 0x01 && posts == 1 && postedSrb == srb;
}

int main(void) {
  /* One block above 4 GiB for the records and the data. */
  unsigned char* high = mmap((void*)0x500000000ul, 1 << 20, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
  Check("the buffers and the posting function lie above 4 GiB",
        high != MAP_FAILED && (uintptr_t)high > 0xFFFFFFFFu && (uintptr_t)(void*)Posted > 0xFFFFFFFFu);
  if (high == MAP_FAILED) return 1;
  HaInquiry* inquiry = (HaInquiry*)high;
  inquiry->cmd = 0x00, inquiry->haId = 0;
  Check("host adapter inquiry of adapter 0: done, its manager, its name (virtio_scsi), 8 targets",
        (GetASPI32SupportInfo() & 0xFF) >= 1 && SendASPI32Command(inquiry) == 0x01 && inquiry->status == 0x01 &&
            memcmp(inquiry->managerId, "Linux ASPI", 10) == 0 &&
            memcmp(inquiry->identifier, "virtio_scsi", 11) == 0 && inquiry->unique[3] == 8);

  ExecScsiCmd* srb = (ExecScsiCmd*)(high + 4096);
  unsigned char* data = high + 8192;
  const unsigned char inquire[6] = {0x12, 0, 0, 0, 36, 0};
  Check("INQUIRY of 0:0:0: done, posted once, a CD/DVD drive of QEMU's",
        Send(srb, inquire, 6, data, 36) && (data[0] & 0x1F) == 5 && memcmp(data + 8, "QEMU", 4) == 0);

  const unsigned char read10[10] = {0x28, 0, 0, 0, 0, 16, 0, 0, 2, 0}; /* LBA 16, 2 blocks */
  unsigned char expected[4096];
  const int image = open("/opt/kavo/disc.iso", O_RDONLY);
  const int imageRead = image >= 0 && pread(image, expected, sizeof expected, 16 * 2048) == (ssize_t)sizeof expected;
  Check("READ(10) of 0:0:0: done, posted once, the disc image's blocks 16 and 17",
        imageRead && Send(srb, read10, 10, data, 4096) && memcmp(data, expected, sizeof expected) == 0);
  return failures ? 1 : 0;
}
