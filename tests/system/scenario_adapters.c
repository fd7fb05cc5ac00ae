/* Host adapters and device types as an application enumerates them,
 * compared with the kernel's own listing of hosts and drives. */
#include <stdio.h>
#include <string.h>

#include "support.h"

static int highest_host_with_drive(const Drive* drives, int count) {
  int highest = -1, i;
  for (i = 0; i < count; ++i)
    if (drives[i].host > highest) highest = drives[i].host;
  return highest;
}

static const Drive* drive_at(const Drive* drives, int count, int host, int target, int lun) {
  int i;
  for (i = 0; i < count; ++i)
    if (drives[i].host == host && drives[i].channel == 0 && drives[i].target == target && drives[i].lun == lun)
      return &drives[i];
  return NULL;
}

static void expected_name(const Drive* drives, int count, int adapter, char* name, unsigned size) {
  int i;
  snprintf(name, size, "unknown");
  for (i = 0; i < count; ++i)
    if (drives[i].host == adapter) {
      host_driver_name(adapter, name, size);
      if (name[0] == 0) snprintf(name, size, "unknown");
      return;
    }
}

static void check_adapter_inquiry(const Drive* drives, int count, int adapter) {
  SRB_HAInquiry inquiry;
  char expected[64], got[17], what[96];
  unsigned status;
  memset(&inquiry, 0xA5, sizeof inquiry);
  inquiry.SRB_Cmd = SC_HA_INQUIRY;
  inquiry.SRB_HaId = (unsigned char)adapter;
  inquiry.SRB_Flags = 0;
  status = SendASPI32Command(&inquiry);
  expected_name(drives, count, adapter, expected, sizeof expected);
  memcpy(got, inquiry.HA_Identifier, 16);
  got[16] = 0;
  snprintf(what, sizeof what, "adapter %d is named \"%.16s\"", adapter, expected);
  check(status == SS_COMP && inquiry.SRB_Status == SS_COMP && strncmp(got, expected, 16) == 0, what,
        "status %#x/%#x, name \"%s\"", status, inquiry.SRB_Status, got);
  snprintf(what, sizeof what, "adapter %d inquiry fields", adapter);
  check(inquiry.HA_Count == 2 && inquiry.HA_SCSI_ID == 7 &&
            memcmp(inquiry.HA_ManagerId, "Linux ASPI\0\0\0\0\0\0", 16) == 0 && inquiry.HA_Unique[3] == 8 &&
            inquiry.HA_Unique[4] == 0 && inquiry.HA_Unique[5] == 0 && inquiry.HA_Unique[6] == 2 &&
            inquiry.HA_Unique[7] == 0 && inquiry.HA_Rsvd1 == 0xA5A5,
        what, "count %d, id %d, manager \"%.16s\", max targets %d, max transfer %02x%02x%02x%02x",
        inquiry.HA_Count, inquiry.HA_SCSI_ID, (const char*)inquiry.HA_ManagerId, inquiry.HA_Unique[3],
        inquiry.HA_Unique[7], inquiry.HA_Unique[6], inquiry.HA_Unique[5], inquiry.HA_Unique[4]);
}

static void check_device_types(const Drive* drives, int count, int adapters) {
  char wrong[1024] = "";
  int adapter, target, lun, addresses = 0, devices = 0;
  for (adapter = 0; adapter <= adapters; ++adapter)
    for (target = 0; target < 8; ++target)
      for (lun = 0; lun < 2; ++lun) {
        const Drive* drive = drive_at(drives, count, adapter, target, lun);
        SRB_GDEVBlock block;
        unsigned status;
        memset(&block, 0, sizeof block);
        block.SRB_Cmd = SC_GET_DEV_TYPE;
        block.SRB_HaId = (unsigned char)adapter;
        block.SRB_Target = (unsigned char)target;
        block.SRB_Lun = (unsigned char)lun;
        block.SRB_DeviceType = 0x1F;
        status = SendASPI32Command(&block);
        ++addresses;
        if (drive) {
          char what[96];
          ++devices;
          snprintf(what, sizeof what, "device type %d at %d:%d:%d (%s)", drive->type, adapter, target, lun,
                   drive->generic);
          check(status == SS_COMP && block.SRB_Status == SS_COMP && block.SRB_DeviceType == drive->type, what,
                "status %#x/%#x, type %d", status, block.SRB_Status, block.SRB_DeviceType);
        } else if (status != SS_NO_DEVICE || block.SRB_Status != SS_NO_DEVICE) {
          size_t used = strlen(wrong);
          snprintf(wrong + used, sizeof wrong - used, " %d:%d:%d=%#x", adapter, target, lun, status);
        }
      }
  {
    char what[96];
    snprintf(what, sizeof what, "no device at the other %d addresses", addresses - devices);
    check(wrong[0] == 0, what, "answered:%s", wrong);
  }
}

int main(void) {
  Drive drives[MAX_DRIVES];
  int count = list_drives(drives, MAX_DRIVES);
  int expected_adapters = highest_host_with_drive(drives, count) + 1;
  unsigned support;
  int adapter;

  check_group("adapters");
  if (!check(count >= 3, "the machine has its three drives", "sysfs lists %d", count)) return check_finish();
  support = GetASPI32SupportInfo();
  check((support & 0xFF00) == 0x0100 && (int)(support & 0xFF) == expected_adapters,
        "adapter count is one past the highest Linux host with a drive", "support info %#x, expected %#x",
        support, 0x100 | expected_adapters);
  for (adapter = 0; adapter <= expected_adapters; ++adapter) check_adapter_inquiry(drives, count, adapter);

  check_group("device-type");
  check_device_types(drives, count, expected_adapters);
  return check_finish();
}
