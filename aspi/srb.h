/* ASPI for Win32 request blocks, codes and entry points, as an application
 * written against that interface fills and calls them.
 *
 * The records are a binary interface shared with applications: little-endian,
 * no padding, each field right after the one before. On 32-bit x86 they are
 * the interface's own, with 4-byte pointers. On x86_64 (LP64) they keep the
 * same fields in the same order, packed the same way, and each pointer field
 * is 8 bytes, so that only SRB_ExecSCSICmd moves from SRB_SenseLen on:
 *
 *   SRB_ExecSCSICmd field  i386 offset  x86_64 offset  size (i386/x86_64)
 *   SRB_Cmd ... SRB_Rsvd1  0 to 10      0 to 10        as declared
 *   SRB_BufLen             12           12             4
 *   SRB_BufPointer         16           16             4 / 8
 *   SRB_SenseLen           20           24             1
 *   SRB_CDBLen             21           25             1
 *   SRB_HaStat             22           26             1
 *   SRB_TargStat           23           27             1
 *   SRB_PostProc           24           28             4 / 8 (not aligned)
 *   SRB_Rsvd2              28           36             20
 *   CDBByte                48           56             16
 *   SenseArea              64           72             16
 *   the record             80 bytes     88 bytes
 *
 * SRB_HAInquiry (60 bytes) and SRB_GDEVBlock (12 bytes) hold no pointer and
 * are the same on both. Every offset is pinned below. This header compiles
 * as C and as C++. */
#ifndef KAVOASPI_ASPI_SRB_H
#define KAVOASPI_ASPI_SRB_H

#include <stddef.h>

#include "runtime/export.h"

/* Command codes (SRB_Cmd). No other code is served. */
#define SC_HA_INQUIRY 0x00
#define SC_GET_DEV_TYPE 0x01
#define SC_EXEC_SCSI_CMD 0x02

/* Request flags (SRB_Flags). */
#define SRB_POSTING 0x01
#define SRB_DIR_IN 0x08
#define SRB_DIR_OUT 0x10
#define SRB_EVENT_NOTIFY 0x40

/* Status codes (SRB_Status and results). */
#define SS_PENDING 0x00
#define SS_COMP 0x01
#define SS_ERR 0x04
#define SS_INVALID_CMD 0x80
#define SS_NO_DEVICE 0x82
#define SS_INVALID_SRB 0xE0
#define SS_ASPI_IS_BUSY 0xE5

/* Host adapter status (SRB_HaStat). */
#define HASTAT_OK 0x00

#pragma pack(push, 1)

typedef struct SRB_HAInquiry {
  unsigned char SRB_Cmd;
  unsigned char SRB_Status;
  unsigned char SRB_HaId;
  unsigned char SRB_Flags;
  unsigned int SRB_Hdr_Rsvd;
  unsigned char HA_Count;
  unsigned char HA_SCSI_ID;
  unsigned char HA_ManagerId[16];
  unsigned char HA_Identifier[16];
  unsigned char HA_Unique[16];
  unsigned short HA_Rsvd1;
} SRB_HAInquiry;

typedef struct SRB_GDEVBlock {
  unsigned char SRB_Cmd;
  unsigned char SRB_Status;
  unsigned char SRB_HaId;
  unsigned char SRB_Flags;
  unsigned int SRB_Hdr_Rsvd;
  unsigned char SRB_Target;
  unsigned char SRB_Lun;
  unsigned char SRB_DeviceType;
  unsigned char SRB_Rsvd1;
} SRB_GDEVBlock;

typedef struct SRB_ExecSCSICmd {
  unsigned char SRB_Cmd;
  unsigned char SRB_Status;
  unsigned char SRB_HaId;
  unsigned char SRB_Flags;
  unsigned int SRB_Hdr_Rsvd;
  unsigned char SRB_Target;
  unsigned char SRB_Lun;
  unsigned short SRB_Rsvd1;
  unsigned int SRB_BufLen;
  unsigned char* SRB_BufPointer;
  unsigned char SRB_SenseLen;
  unsigned char SRB_CDBLen;
  unsigned char SRB_HaStat;
  unsigned char SRB_TargStat;
  /* With SRB_POSTING: a function taking the SRB's address. With
   * SRB_EVENT_NOTIFY: a CPosixEvent the application constructed. */
  void* SRB_PostProc;
  unsigned char SRB_Rsvd2[20];
  unsigned char CDBByte[16];
  /* The library writes at most SRB_SenseLen bytes here; a caller asking for
   * more than 16 supplies a longer block. */
  unsigned char SenseArea[16];
} SRB_ExecSCSICmd;

#pragma pack(pop)

/* The completion function named in SRB_PostProc under SRB_POSTING. */
typedef void (*ASPI_PostProc)(SRB_ExecSCSICmd* srb);

/* Arrival and removal callbacks, in this order, for ASPI_putCallbacks. They
 * run on the library's monitor thread after the registry was rebuilt. The
 * argument packs the drive's address: adapter in bits 16-23, target in
 * bits 8-15, LUN in bits 0-7. */
typedef struct ASPI_Callbacks {
  void (*pfnArrival)(unsigned int address);
  void (*pfnRemoval)(unsigned int address);
} ASPI_Callbacks;

#ifdef __cplusplus
#define KAVO_SRB_STATIC_ASSERT(condition, what) static_assert(condition, what)
#else
#define KAVO_SRB_STATIC_ASSERT(condition, what) _Static_assert(condition, what)
#endif

#if defined(__i386__) || defined(__x86_64__)
#define KAVO_SRB_AT(type, field, offset) \
  KAVO_SRB_STATIC_ASSERT(offsetof(type, field) == (offset), #type "." #field " at " #offset)
KAVO_SRB_AT(SRB_HAInquiry, SRB_Cmd, 0);
KAVO_SRB_AT(SRB_HAInquiry, SRB_Status, 1);
KAVO_SRB_AT(SRB_HAInquiry, SRB_HaId, 2);
KAVO_SRB_AT(SRB_HAInquiry, SRB_Flags, 3);
KAVO_SRB_AT(SRB_HAInquiry, SRB_Hdr_Rsvd, 4);
KAVO_SRB_AT(SRB_HAInquiry, HA_Count, 8);
KAVO_SRB_AT(SRB_HAInquiry, HA_SCSI_ID, 9);
KAVO_SRB_AT(SRB_HAInquiry, HA_ManagerId, 10);
KAVO_SRB_AT(SRB_HAInquiry, HA_Identifier, 26);
KAVO_SRB_AT(SRB_HAInquiry, HA_Unique, 42);
KAVO_SRB_AT(SRB_HAInquiry, HA_Rsvd1, 58);
KAVO_SRB_STATIC_ASSERT(sizeof(SRB_HAInquiry) == 60, "SRB_HAInquiry is 60 bytes");
KAVO_SRB_AT(SRB_GDEVBlock, SRB_Cmd, 0);
KAVO_SRB_AT(SRB_GDEVBlock, SRB_Status, 1);
KAVO_SRB_AT(SRB_GDEVBlock, SRB_HaId, 2);
KAVO_SRB_AT(SRB_GDEVBlock, SRB_Flags, 3);
KAVO_SRB_AT(SRB_GDEVBlock, SRB_Hdr_Rsvd, 4);
KAVO_SRB_AT(SRB_GDEVBlock, SRB_Target, 8);
KAVO_SRB_AT(SRB_GDEVBlock, SRB_Lun, 9);
KAVO_SRB_AT(SRB_GDEVBlock, SRB_DeviceType, 10);
KAVO_SRB_AT(SRB_GDEVBlock, SRB_Rsvd1, 11);
KAVO_SRB_STATIC_ASSERT(sizeof(SRB_GDEVBlock) == 12, "SRB_GDEVBlock is 12 bytes");

KAVO_SRB_AT(SRB_ExecSCSICmd, SRB_Cmd, 0);
KAVO_SRB_AT(SRB_ExecSCSICmd, SRB_Status, 1);
KAVO_SRB_AT(SRB_ExecSCSICmd, SRB_HaId, 2);
KAVO_SRB_AT(SRB_ExecSCSICmd, SRB_Flags, 3);
KAVO_SRB_AT(SRB_ExecSCSICmd, SRB_Hdr_Rsvd, 4);
KAVO_SRB_AT(SRB_ExecSCSICmd, SRB_Target, 8);
KAVO_SRB_AT(SRB_ExecSCSICmd, SRB_Lun, 9);
KAVO_SRB_AT(SRB_ExecSCSICmd, SRB_Rsvd1, 10);
KAVO_SRB_AT(SRB_ExecSCSICmd, SRB_BufLen, 12);
KAVO_SRB_AT(SRB_ExecSCSICmd, SRB_BufPointer, 16);
/* From here on the pointers' width moves the fields: i386 offset, x86_64 offset. */
#if defined(__i386__)
#define KAVO_SRB_EXEC_AT(field, i386, x86_64) KAVO_SRB_AT(SRB_ExecSCSICmd, field, i386)
#else
#define KAVO_SRB_EXEC_AT(field, i386, x86_64) KAVO_SRB_AT(SRB_ExecSCSICmd, field, x86_64)
#endif
KAVO_SRB_EXEC_AT(SRB_SenseLen, 20, 24);
KAVO_SRB_EXEC_AT(SRB_CDBLen, 21, 25);
KAVO_SRB_EXEC_AT(SRB_HaStat, 22, 26);
KAVO_SRB_EXEC_AT(SRB_TargStat, 23, 27);
KAVO_SRB_EXEC_AT(SRB_PostProc, 24, 28);
KAVO_SRB_EXEC_AT(SRB_Rsvd2, 28, 36);
KAVO_SRB_EXEC_AT(CDBByte, 48, 56);
KAVO_SRB_EXEC_AT(SenseArea, 64, 72);
KAVO_SRB_STATIC_ASSERT(sizeof(SRB_ExecSCSICmd) == (sizeof(void*) == 4 ? 80 : 88), "SRB_ExecSCSICmd is 80 or 88 bytes");
#undef KAVO_SRB_EXEC_AT
#undef KAVO_SRB_AT
#endif

/* Entry points under their plain names. */
KAVO_EXTERN_C KAVO_API unsigned int SendASPI32Command(void* srb);
KAVO_EXTERN_C KAVO_API unsigned int GetASPI32SupportInfo(void);
KAVO_EXTERN_C KAVO_API int ASPI_setExclusiveMode(int nHost, int nTarget);
KAVO_EXTERN_C KAVO_API int ASPI_unsetExclusiveMode(int nHost, int nTarget);
/* Registers each non-null callback; a function registered twice is called
 * twice. There is no way to remove one. */
KAVO_EXTERN_C KAVO_API void ASPI_putCallbacks(ASPI_Callbacks* callbacks);
KAVO_EXTERN_C KAVO_API void SCSI_Done(void);

#ifdef __cplusplus
/* Entry points exported under their C++ signatures. */
KAVO_API unsigned int GetASPI32DLLVersion();
KAVO_API unsigned int GetASPI32Buffer(void* buffer);
KAVO_API unsigned int FreeASPI32Buffer(void* buffer);
KAVO_API unsigned int TranslateASPI32Address(unsigned int* path, unsigned int* devNode);
KAVO_API void winaspi32_checkinit();
#endif

#endif
