/* aspitool's commands: scan, inquiry, toc, read and watch, through ASPI
 * exactly as an application uses it (disc and write: aspitool_burn.c). */
#include "tools/aspitool_commands.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define BLOCK_SIZE ASPITOOL_BLOCK_SIZE
#define INQUIRY_LENGTH 96u
#define TOC_LENGTH 804u /* header and 100 descriptors: the most a disc has */
#define LUNS_PER_TARGET 8
#define SENSE_LENGTH 16
#define UNIT_ATTENTION_RETRIES 3

typedef AspitoolAddress Address;

/* --json was given: results as one JSON document on out. */
static int jsonOutput;

typedef struct {
  const char* name;
  const char* arguments;
  const char* help;
  int minArguments, maxArguments;
  int (*run)(char** arguments, int count, FILE* out, FILE* err);
} Command;

/* ---- Words for codes ---- */

static const char* status_words(unsigned char status) {
  switch (status) {
    case SS_PENDING: return "still pending";
    case SS_COMP: return "completed";
    case SS_ERR: return "completed with error";
    case SS_INVALID_CMD: return "invalid command";
    case SS_NO_DEVICE: return "no device";
    case SS_INVALID_SRB: return "invalid request block";
    case SS_ASPI_IS_BUSY: return "device busy";
    default: return "unknown status";
  }
}

static const char* sense_key_words(unsigned key) {
  static const char* const words[16] = {
      "NO SENSE",        "RECOVERED ERROR", "NOT READY",       "MEDIUM ERROR",
      "HARDWARE ERROR",  "ILLEGAL REQUEST", "UNIT ATTENTION",  "DATA PROTECT",
      "BLANK CHECK",     "VENDOR SPECIFIC", "COPY ABORTED",    "ABORTED COMMAND",
      "reserved",        "VOLUME OVERFLOW", "MISCOMPARE",      "reserved"};
  return words[key & 0x0F];
}

/* The additional sense codes a CD/DVD drive gives most. */
static const char* additional_sense_words(unsigned char asc, unsigned char ascq) {
  switch (asc) {
    case 0x04: return ascq == 0x01 ? "becoming ready" : "not ready";
    case 0x0C: return "write error";
    case 0x11: return "unrecovered read error";
    case 0x20: return "invalid command operation code";
    case 0x21: return "logical block address out of range";
    case 0x24: return "invalid field in CDB";
    case 0x25: return "logical unit not supported";
    case 0x28: return "medium may have changed";
    case 0x29: return "power on or reset";
    case 0x30: return "incompatible medium";
    case 0x3A: return "medium not present";
    case 0x3F: return ascq == 0x0E ? "reported LUNs data has changed" : NULL;
    case 0x64: return "illegal mode for this track";
    case 0x6F: return "copy protection key exchange failure";
    default: return NULL;
  }
}

static const char* target_status_words(unsigned char status) {
  switch (status) {
    case 0x00: return "GOOD";
    case 0x02: return "CHECK CONDITION";
    case 0x08: return "BUSY";
    case 0x18: return "RESERVATION CONFLICT";
    case 0x28: return "TASK SET FULL";
    default: return "unknown";
  }
}

static const char* peripheral_type_words(unsigned type) {
  switch (type) {
    case 0x00: return "disk";
    case 0x01: return "tape";
    case 0x02: return "printer";
    case 0x03: return "processor";
    case 0x04: return "write-once";
    case 0x05: return "CD/DVD";
    case 0x06: return "scanner";
    case 0x07: return "optical memory";
    case 0x08: return "changer";
    case 0x09: return "communications";
    case 0x0C: return "storage array";
    case 0x0D: return "enclosure";
    case 0x0E: return "simplified disk";
    case 0x0F: return "card reader";
    default: return "unknown type";
  }
}

/* Sense in the fixed format, whose key and codes are read here. */
static int is_fixed_sense(const unsigned char* sense) {
  return (sense[0] & 0x7F) == 0x70 || (sense[0] & 0x7F) == 0x71;
}

void aspitool_describe_failure(FILE* err, const SRB_ExecSCSICmd* srb) {
  const unsigned char* sense = srb->SenseArea;
  fprintf(err, "ASPI status 0x%02X (%s)", srb->SRB_Status, status_words(srb->SRB_Status));
  if (srb->SRB_Status != SS_ERR) {
    fputc('\n', err);
    return;
  }
  if (is_fixed_sense(sense)) {
    const char* words = additional_sense_words(sense[12], sense[13]);
    fprintf(err, ", sense key 0x%X (%s), ASC/ASCQ %02X/%02X", sense[2] & 0x0F, sense_key_words(sense[2]), sense[12],
            sense[13]);
    if (words != NULL) fprintf(err, " (%s)", words);
  } else {
    fprintf(err, ", target status 0x%02X (%s)", srb->SRB_TargStat, target_status_words(srb->SRB_TargStat));
  }
  fputc('\n', err);
}

/* ---- Arguments ---- */

/* A decimal number without sign or blanks, at most max. */
static int parse_number(const char* text, unsigned long long max, unsigned long long* value) {
  if (*text < '0' || *text > '9') return 0;
  errno = 0;
  char* end = NULL;
  unsigned long long number = strtoull(text, &end, 10);
  if (errno != 0 || *end != 0 || number > max) return 0;
  *value = number;
  return 1;
}

/* ADAPTER:TARGET:LUN, each 0 to 255. */
static int parse_address(const char* text, Address* address) {
  char copy[64];
  if (strlen(text) >= sizeof copy) return 0;
  strcpy(copy, text);
  unsigned long long fields[3];
  char* field = copy;
  for (int i = 0; i < 3; ++i) {
    char* colon = strchr(field, ':');
    if ((colon == NULL) != (i == 2)) return 0;
    if (colon != NULL) *colon = 0;
    if (!parse_number(field, 255, &fields[i])) return 0;
    field = colon + 1;
  }
  address->adapter = (unsigned char)fields[0];
  address->target = (unsigned char)fields[1];
  address->lun = (unsigned char)fields[2];
  return 1;
}

static int adapter_count(void) { return (int)(GetASPI32SupportInfo() & 0xFF); }

static unsigned char get_device_type(const Address* address, unsigned char* type);

/* A node such as /dev/sr0 or /dev/sg0: the address of its drive. */
static int take_node(const char* path, Address* address, FILE* err) {
  struct stat node;
  if (stat(path, &node) != 0) {
    fprintf(err, "aspitool: cannot find \"%s\": %s\n", path, strerror(errno));
    return ASPITOOL_FAILED;
  }
  adapter_count(); /* the registry is built at the first ASPI call */
  if (aspitool_find_node(&node, address)) return ASPITOOL_OK;
  fprintf(err, "aspitool: %s is not a node of a drive the library reaches\n", path);
  aspitool_explain_unseen(err, aspitool_registry_devices());
  return ASPITOOL_FAILED;
}

/* A drive whose generic node another program holds open exclusively: the
 * library neither registers it nor reaches it while the hold lasts. */
static int held_elsewhere(const Address* address) {
  const int host = aspitool_linux_host(address->adapter);
  return host >= 0 && aspitool_scsi_node_held(host, address->target, address->lun);
}

int aspitool_take_address(const char* text, Address* address, FILE* err) {
  if (text[0] == '/') return take_node(text, address, err);
  if (!parse_address(text, address)) {
    fprintf(err, "aspitool: bad device address \"%s\": expected ADAPTER:TARGET:LUN, each 0 to 255, "
                 "or a drive's node /dev/srN or /dev/sgN\n", text);
    return ASPITOOL_USAGE;
  }
  const int count = adapter_count();
  unsigned char type;
  if (address->adapter >= count) {
    fprintf(err, "aspitool: no host adapter %u: the library found %d\n", address->adapter, count);
  } else if (get_device_type(address, &type) != SS_NO_DEVICE) {
    return ASPITOOL_OK;
  } else if (held_elsewhere(address)) {
    fprintf(err, "aspitool: the drive at %u:%u:%u is in use by another program, which holds it: nothing was done\n",
            address->adapter, address->target, address->lun);
    return ASPITOOL_FAILED;
  } else {
    fprintf(err, "aspitool: no device at %u:%u:%u\n", address->adapter, address->target, address->lun);
  }
  aspitool_explain_unseen(err, aspitool_registry_devices());
  return ASPITOOL_FAILED;
}

/* ---- Requests ---- */

static void inquire_adapter(int adapter, SRB_HAInquiry* inquiry) {
  memset(inquiry, 0, sizeof *inquiry);
  inquiry->SRB_Cmd = SC_HA_INQUIRY;
  inquiry->SRB_HaId = (unsigned char)adapter;
  SendASPI32Command(inquiry);
}

static int is_unit_attention(const SRB_ExecSCSICmd* srb) {
  return srb->SRB_Status == SS_ERR && is_fixed_sense(srb->SenseArea) && (srb->SenseArea[2] & 0x0F) == 0x06;
}

/* A UNIT ATTENTION (a reset, a changed medium or LUN inventory, told once)
 * means the drive did not carry the command out: it is sent again. */
unsigned char aspitool_execute(const Address* address, const unsigned char* cdb, unsigned char cdbLength,
                               unsigned char* buffer, unsigned int length, unsigned char flags,
                               SRB_ExecSCSICmd* srb) {
  for (int attempt = 0;; ++attempt) {
    memset(srb, 0, sizeof *srb);
    if (flags & SRB_DIR_IN) memset(buffer, 0, length);
    srb->SRB_Cmd = SC_EXEC_SCSI_CMD;
    srb->SRB_HaId = address->adapter;
    srb->SRB_Target = address->target;
    srb->SRB_Lun = address->lun;
    srb->SRB_Flags = flags;
    srb->SRB_BufLen = length;
    srb->SRB_BufPointer = buffer;
    srb->SRB_SenseLen = SENSE_LENGTH;
    srb->SRB_CDBLen = cdbLength;
    memcpy(srb->CDBByte, cdb, cdbLength);
    SendASPI32Command(srb);
    if (!is_unit_attention(srb) || attempt == UNIT_ATTENTION_RETRIES) return srb->SRB_Status;
  }
}

static unsigned char execute_in(const Address* address, const unsigned char* cdb, unsigned char cdbLength,
                                unsigned char* buffer, unsigned int length, SRB_ExecSCSICmd* srb) {
  return aspitool_execute(address, cdb, cdbLength, buffer, length, SRB_DIR_IN, srb);
}

/* The device's peripheral type as ASPI reports it, or SS_NO_DEVICE when
 * there is no device: what an ASPI scanner asks before any INQUIRY. */
static unsigned char get_device_type(const Address* address, unsigned char* type) {
  SRB_GDEVBlock srb;
  memset(&srb, 0, sizeof srb);
  srb.SRB_Cmd = SC_GET_DEV_TYPE;
  srb.SRB_HaId = address->adapter;
  srb.SRB_Target = address->target;
  srb.SRB_Lun = address->lun;
  SendASPI32Command(&srb);
  *type = srb.SRB_DeviceType;
  return srb.SRB_Status;
}

static unsigned char inquire_device(const Address* address, unsigned char* data, SRB_ExecSCSICmd* srb) {
  const unsigned char cdb[6] = {0x12, 0, 0, 0, INQUIRY_LENGTH, 0};
  return execute_in(address, cdb, sizeof cdb, data, INQUIRY_LENGTH, srb);
}

int aspitool_report_failure(FILE* err, const char* what, const Address* address, const SRB_ExecSCSICmd* srb) {
  fprintf(err, "aspitool: %s of %u:%u:%u failed: ", what, address->adapter, address->target, address->lun);
  aspitool_describe_failure(err, srb);
  return ASPITOOL_FAILED;
}

/* ---- Formatting ---- */

/* An INQUIRY text field without trailing blanks, unprintable bytes as '?'. */
static void copy_text(char* text, const unsigned char* field, size_t width) {
  size_t length = 0;
  for (size_t i = 0; i < width; ++i) text[length++] = field[i] >= 0x20 && field[i] < 0x7F ? (char)field[i] : '?';
  while (length > 0 && text[length - 1] == ' ') --length;
  text[length] = 0;
}

static unsigned long be32(const unsigned char* bytes) {
  return ((unsigned long)bytes[0] << 24) | ((unsigned long)bytes[1] << 16) | ((unsigned long)bytes[2] << 8) | bytes[3];
}

typedef struct {
  char vendor[9], product[17], revision[5];
} Identity;

static void take_identity(Identity* identity, const unsigned char* data) {
  copy_text(identity->vendor, data + 8, 8);
  copy_text(identity->product, data + 16, 16);
  copy_text(identity->revision, data + 32, 4);
}

static void print_device_line(FILE* out, const Address* address, unsigned char type, const unsigned char* data) {
  Identity identity;
  AspitoolNodes nodes;
  char nodeText[2 * ASPITOOL_NODE_LENGTH + 2];
  take_identity(&identity, data);
  aspitool_device_nodes(address, &nodes);
  snprintf(nodeText, sizeof nodeText, "%s %s", nodes.generic[0] ? nodes.generic : "-",
           nodes.block[0] ? nodes.block : "-");
  fprintf(out, "  %u:%u:%u  %-17s  %-14s  %-8s  %-16s  %s\n", address->adapter, address->target, address->lun,
          nodeText, peripheral_type_words(type), identity.vendor, identity.product, identity.revision);
}

static void print_json_member(FILE* out, const char* name, const char* text, int emptyIsNull) {
  fprintf(out, "\"%s\": ", name);
  aspitool_json_string(out, text, emptyIsNull);
}

/* The fields that scan and inquiry share: address, nodes, identity; the
 * first on the caller's line, the others on lines of their own. */
static void print_device_json(FILE* out, const Address* address, const unsigned char* data, const char* indent) {
  Identity identity;
  AspitoolNodes nodes;
  take_identity(&identity, data);
  aspitool_device_nodes(address, &nodes);
  fprintf(out, "\"address\": \"%u:%u:%u\", \"adapter\": %u, \"target\": %u, \"lun\": %u,\n%s", address->adapter,
          address->target, address->lun, address->adapter, address->target, address->lun, indent);
  print_json_member(out, "generic_node", nodes.generic, 1);
  fputs(", ", out);
  print_json_member(out, "block_node", nodes.block, 1);
  fprintf(out, ",\n%s", indent);
  print_json_member(out, "vendor", identity.vendor, 0);
  fputs(", ", out);
  print_json_member(out, "product", identity.product, 0);
  fputs(", ", out);
  print_json_member(out, "revision", identity.revision, 0);
}

static void print_scanned_device(FILE* out, const Address* address, unsigned char type, const unsigned char* data,
                                 int first) {
  if (!jsonOutput) {
    print_device_line(out, address, type, data);
    return;
  }
  fprintf(out, "%s\n      {", first ? "" : ",");
  print_device_json(out, address, data, "       ");
  fprintf(out, ",\n       \"peripheral_type\": %u, \"type\": \"%s\"}", type, peripheral_type_words(type));
}

/* ---- Commands ---- */

/* The devices at one adapter; returns how many answered. */
static int scan_adapter(int adapter, int targets, FILE* out) {
  int found = 0;
  for (int target = 0; target < targets; ++target) {
    for (int lun = 0; lun < LUNS_PER_TARGET; ++lun) {
      const Address address = {(unsigned char)adapter, (unsigned char)target, (unsigned char)lun};
      unsigned char type, data[INQUIRY_LENGTH];
      SRB_ExecSCSICmd srb;
      const unsigned char typeStatus = get_device_type(&address, &type);
      if (typeStatus == SS_NO_DEVICE) continue;
      const unsigned char status = inquire_device(&address, data, &srb);
      if (status == SS_NO_DEVICE) continue; /* gone meanwhile */
      if (status == SS_COMP && (data[0] >> 5) == 3) continue; /* qualifier 3: no unit at this LUN */
      if (status != SS_COMP && !jsonOutput) {
        fprintf(out, "  %u:%u:%u  INQUIRY failed: ", address.adapter, address.target, address.lun);
        aspitool_describe_failure(out, &srb);
      } else {
        if (status != SS_COMP) memset(data, 0, sizeof data); /* JSON: the device, its identity empty */
        print_scanned_device(out, &address, typeStatus == SS_COMP ? type : 0x1F, data, found == 0); /* 0x1F: unknown */
      }
      ++found;
    }
  }
  return found;
}

static void print_adapter(FILE* out, int adapter, const char* name, int first) {
  if (!jsonOutput) {
    fprintf(out, "adapter %d: %s (%s)\n", adapter, name, aspitool_adapter_kind(adapter));
    return;
  }
  fprintf(out, "%s\n    {\"number\": %d, ", first ? "" : ",", adapter);
  print_json_member(out, "name", name, 0);
  fprintf(out, ", \"kind\": \"%s\", \"devices\": [", aspitool_adapter_kind(adapter));
}

/* Every device at every adapter; how many answered. */
static int scan_adapters(FILE* out, int adapters) {
  int found = 0;
  for (int adapter = 0; adapter < adapters; ++adapter) {
    SRB_HAInquiry inquiry;
    char name[17];
    inquire_adapter(adapter, &inquiry);
    memcpy(name, inquiry.HA_Identifier, 16);
    name[16] = 0;
    print_adapter(out, adapter, name, adapter == 0);
    const int targets = inquiry.HA_Unique[3] != 0 ? inquiry.HA_Unique[3] : 8;
    const int atAdapter = scan_adapter(adapter, targets, out);
    if (jsonOutput) fputs(atAdapter ? "\n    ]}" : "]}", out);
    else if (atAdapter == 0) fprintf(out, "  no devices\n");
    found += atAdapter;
  }
  return found;
}

static int run_scan(char** arguments, int count, FILE* out, FILE* err) {
  (void)arguments, (void)count;
  const int adapters = adapter_count();
  if (jsonOutput) fputs("{\n  \"adapters\": [", out);
  else if (adapters == 0) fprintf(out, "No host adapters found: the library reaches no CD/DVD drive on this machine.\n");
  else fprintf(out, "%d host adapter%s\n", adapters, adapters == 1 ? "" : "s");
  const int found = scan_adapters(out, adapters);
  if (jsonOutput) fprintf(out, "%s],\n  \"devices_found\": %d\n}\n", adapters ? "\n  " : "", found);
  fflush(out);
  aspitool_explain_unseen(err, found);
  return found > 0 ? ASPITOOL_OK : ASPITOOL_FAILED;
}

static int run_inquiry(char** arguments, int count, FILE* out, FILE* err) {
  (void)count;
  Address address;
  const int checked = aspitool_take_address(arguments[0], &address, err);
  if (checked != ASPITOOL_OK) return checked;
  unsigned char data[INQUIRY_LENGTH];
  SRB_ExecSCSICmd srb;
  if (inquire_device(&address, data, &srb) != SS_COMP) return aspitool_report_failure(err, "INQUIRY", &address, &srb);
  if (jsonOutput) {
    fputs("{\n  ", out);
    print_device_json(out, &address, data, "  ");
    fprintf(out, ",\n  \"peripheral_type\": %u, \"type\": \"%s\", \"qualifier\": %u,\n"
            "  \"removable\": %s, \"ansi_version\": %u\n}\n", data[0] & 0x1Fu, peripheral_type_words(data[0] & 0x1F),
            data[0] >> 5, data[1] & 0x80 ? "true" : "false", data[2] & 0x07u);
    return ASPITOOL_OK;
  }
  char vendor[9], product[17], revision[5];
  copy_text(vendor, data + 8, 8);
  copy_text(product, data + 16, 16);
  copy_text(revision, data + 32, 4);
  fprintf(out, "device %u:%u:%u\n", address.adapter, address.target, address.lun);
  fprintf(out, "  peripheral type   %u (%s)\n", data[0] & 0x1Fu, peripheral_type_words(data[0] & 0x1F));
  fprintf(out, "  qualifier         %u\n", data[0] >> 5);
  fprintf(out, "  removable medium  %s\n", data[1] & 0x80 ? "yes" : "no");
  fprintf(out, "  ANSI version      %u\n", data[2] & 0x07u);
  fprintf(out, "  vendor            %s\n", vendor);
  fprintf(out, "  product           %s\n", product);
  fprintf(out, "  revision          %s\n", revision);
  return ASPITOOL_OK;
}

int aspitool_print_toc(FILE* out, const unsigned char* toc, unsigned int size) {
  unsigned int length = ((unsigned)toc[0] << 8 | toc[1]) + 2u;
  if (length > size) length = size;
  if (length < 4) return 0;
  fprintf(out, "tracks %u to %u\n", toc[2], toc[3]);
  for (unsigned int offset = 4; offset + 8 <= length; offset += 8) {
    const unsigned char* descriptor = toc + offset;
    const unsigned long start = be32(descriptor + 4);
    if (descriptor[2] == 0xAA)
      fprintf(out, "  lead-out        LBA %lu\n", start);
    else
      fprintf(out, "  track %3u  %-5s LBA %lu\n", descriptor[2], descriptor[1] & 0x04 ? "data" : "audio", start);
  }
  return 1;
}

/* The same table as one JSON object. */
static void print_toc_json(FILE* out, const Address* address, const unsigned char* toc, unsigned int size) {
  unsigned int length = ((unsigned)toc[0] << 8 | toc[1]) + 2u;
  if (length > size) length = size;
  fprintf(out, "{\n  \"address\": \"%u:%u:%u\", \"first_track\": %u, \"last_track\": %u,\n  \"tracks\": [",
          address->adapter, address->target, address->lun, toc[2], toc[3]);
  unsigned long leadOut = 0;
  int tracks = 0;
  for (unsigned int offset = 4; offset + 8 <= length; offset += 8) {
    const unsigned char* descriptor = toc + offset;
    if (descriptor[2] == 0xAA) {
      leadOut = be32(descriptor + 4);
      continue;
    }
    fprintf(out, "%s\n    {\"number\": %u, \"kind\": \"%s\", \"lba\": %lu}", tracks++ ? "," : "", descriptor[2],
            descriptor[1] & 0x04 ? "data" : "audio", be32(descriptor + 4));
  }
  fprintf(out, "%s],\n  \"lead_out_lba\": %lu\n}\n", tracks ? "\n  " : "", leadOut);
}

static int run_toc(char** arguments, int count, FILE* out, FILE* err) {
  (void)count;
  Address address;
  const int checked = aspitool_take_address(arguments[0], &address, err);
  if (checked != ASPITOOL_OK) return checked;
  static unsigned char toc[TOC_LENGTH];
  const unsigned char cdb[10] = {0x43, 0, 0, 0, 0, 0, 0, TOC_LENGTH >> 8, TOC_LENGTH & 0xFF, 0};
  SRB_ExecSCSICmd srb;
  if (execute_in(&address, cdb, sizeof cdb, toc, TOC_LENGTH, &srb) != SS_COMP)
    return aspitool_report_failure(err, "READ TOC", &address, &srb);
  if (jsonOutput && ((unsigned)toc[0] << 8 | toc[1]) + 2u >= 4) {
    print_toc_json(out, &address, toc, TOC_LENGTH);
  } else if (jsonOutput || !aspitool_print_toc(out, toc, TOC_LENGTH)) {
    fprintf(err, "aspitool: READ TOC of %u:%u:%u returned no table\n", address.adapter, address.target, address.lun);
    return ASPITOOL_FAILED;
  }
  return ASPITOOL_OK;
}

unsigned int aspitool_blocks_per_request(int adapter) {
  SRB_HAInquiry inquiry;
  inquire_adapter(adapter, &inquiry);
  const unsigned char* limit = inquiry.HA_Unique + 4;
  const unsigned long bytes = limit[0] | (unsigned long)limit[1] << 8 | (unsigned long)limit[2] << 16 |
                              (unsigned long)limit[3] << 24;
  const unsigned long blocks = bytes / BLOCK_SIZE;
  return blocks == 0 ? 1u : blocks > 0xFFFFu ? 0xFFFFu : (unsigned int)blocks;
}

/* Reads shorter than this show no progress. */
#define PROGRESS_FROM_BLOCKS 1024u

int aspitool_read_blocks(const Address* address, unsigned long long lba, unsigned long long count, const char* verb,
                         AspitoolBlockSink sink, void* context, FILE* err) {
  const unsigned int chunk = aspitool_blocks_per_request(address->adapter);
  unsigned char* buffer = malloc((size_t)chunk * BLOCK_SIZE);
  if (buffer == NULL) {
    fprintf(err, "aspitool: out of memory\n");
    return ASPITOOL_FAILED;
  }
  AspitoolProgress progress;
  aspitool_progress_start(&progress, count >= PROGRESS_FROM_BLOCKS ? err : NULL, verb, count);
  int result = ASPITOOL_OK;
  for (unsigned long long done = 0; done < count && result == ASPITOOL_OK;) {
    const unsigned int blocks = count - done < chunk ? (unsigned int)(count - done) : chunk;
    const unsigned long long at = lba + done;
    const unsigned char cdb[10] = {0x28, 0, (unsigned char)(at >> 24), (unsigned char)(at >> 16),
                                   (unsigned char)(at >> 8), (unsigned char)at, 0, (unsigned char)(blocks >> 8),
                                   (unsigned char)blocks, 0};
    SRB_ExecSCSICmd srb;
    if (execute_in(address, cdb, sizeof cdb, buffer, blocks * BLOCK_SIZE, &srb) != SS_COMP) {
      aspitool_progress_end(&progress);
      fprintf(err, "aspitool: READ(10) of %u:%u:%u at LBA %llu failed: ", address->adapter, address->target,
              address->lun, at);
      aspitool_describe_failure(err, &srb);
      result = ASPITOOL_FAILED;
    } else {
      result = sink(context, buffer, blocks, at);
    }
    done += blocks;
    if (result == ASPITOOL_OK) aspitool_progress_update(&progress, done);
  }
  aspitool_progress_end(&progress);
  free(buffer);
  return result;
}

typedef struct {
  FILE *stream, *err;
} Streams;

static int write_to_stream(void* context, const unsigned char* data, unsigned int blocks, unsigned long long lba) {
  const Streams* streams = context;
  (void)lba;
  if (fwrite(data, BLOCK_SIZE, blocks, streams->stream) == blocks) return ASPITOOL_OK;
  fprintf(streams->err, "aspitool: cannot write the data: %s\n", strerror(errno));
  return ASPITOOL_FAILED;
}

/* ---- Progress ---- */

double aspitool_now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

/* err null: no progress shown. */
void aspitool_progress_start(AspitoolProgress* progress, FILE* err, const char* verb, unsigned long long blocks) {
  progress->err = err;
  progress->verb = verb;
  progress->total = blocks;
  progress->shownQuarter = 0;
  progress->start = progress->lastDrawn = aspitool_now();
  progress->terminal = err != NULL && isatty(fileno(err));
  progress->drawn = 0;
}

void aspitool_progress_update(AspitoolProgress* progress, unsigned long long done) {
  if (progress->err == NULL || progress->total == 0) return;
  const double now = aspitool_now(), elapsed = now - progress->start;
  const unsigned long long quarter = done * 4 / progress->total;
  if (progress->terminal ? now - progress->lastDrawn < 0.2 && done < progress->total
                         : quarter == progress->shownQuarter)
    return;
  progress->lastDrawn = now;
  progress->shownQuarter = quarter;
  const double mib = (double)done * BLOCK_SIZE / 1048576.0;
  const double rate = elapsed > 0 ? mib / elapsed : 0;
  const unsigned long long left =
      done > 0 ? (unsigned long long)(elapsed * (double)(progress->total - done) / (double)done + 0.5) : 0;
  fprintf(progress->err, "%s%s %3llu%%  %.1f of %.1f MiB  %.1f MiB/s  %llu:%02llu left%s", progress->terminal ? "\r" : "",
          progress->verb, done * 100 / progress->total, mib, (double)progress->total * BLOCK_SIZE / 1048576.0, rate,
          left / 60, left % 60, progress->terminal ? "\033[K" : "\n");
  fflush(progress->err);
  progress->drawn = progress->terminal;
}

void aspitool_progress_end(AspitoolProgress* progress) {
  if (progress->drawn) fprintf(progress->err, "\r\033[K");
  progress->drawn = 0;
}

static int run_read(char** arguments, int count, FILE* out, FILE* err) {
  Address address;
  unsigned long long lba, blocks;
  if (!parse_number(arguments[1], 0xFFFFFFFFull, &lba) || !parse_number(arguments[2], 0xFFFFFFFFull, &blocks) ||
      blocks == 0 || lba + blocks > 0x100000000ull) {
    fprintf(err, "aspitool: bad block range \"%s %s\": LBA and COUNT are decimal, COUNT at least 1, "
            "and the range must end within 2^32 blocks\n", arguments[1], arguments[2]);
    return ASPITOOL_USAGE;
  }
  const int checked = aspitool_take_address(arguments[0], &address, err);
  if (checked != ASPITOOL_OK) return checked;
  Streams streams = {out, err};
  if (count < 4 && isatty(fileno(out))) {
    fprintf(err, "aspitool: not writing %llu blocks of binary data to the terminal: name a FILE "
            "(aspitool read %s %s %s FILE) or redirect standard output (> FILE)\n", blocks, arguments[0],
            arguments[1], arguments[2]);
    return ASPITOOL_USAGE;
  }
  if (count < 4) return aspitool_read_blocks(&address, lba, blocks, "reading", write_to_stream, &streams, err);
  FILE* file = fopen(arguments[3], "wb");
  if (file == NULL) {
    fprintf(err, "aspitool: cannot open \"%s\" for writing: %s\n", arguments[3], strerror(errno));
    return ASPITOOL_FAILED;
  }
  streams.stream = file;
  int result = aspitool_read_blocks(&address, lba, blocks, "reading", write_to_stream, &streams, err);
  if (fclose(file) != 0 && result == ASPITOOL_OK) {
    fprintf(err, "aspitool: cannot write \"%s\": %s\n", arguments[3], strerror(errno));
    result = ASPITOOL_FAILED;
  }
  if (result == ASPITOOL_OK)
    fprintf(out, "%llu blocks (%llu bytes) from LBA %llu written to %s\n", blocks, blocks * BLOCK_SIZE, lba,
            arguments[3]);
  return result;
}

/* START STOP UNIT with LoEj: start 0 ejects the disc (opens the tray),
 * start 1 loads it (closes the tray). */
static int start_stop(char** arguments, FILE* out, FILE* err, int start) {
  Address address;
  const int checked = aspitool_take_address(arguments[0], &address, err);
  if (checked != ASPITOOL_OK) return checked;
  const unsigned char cdb[6] = {0x1B, 0, 0, 0, (unsigned char)(0x02 | start), 0};
  SRB_ExecSCSICmd srb;
  if (aspitool_execute(&address, cdb, sizeof cdb, NULL, 0, 0, &srb) != SS_COMP)
    return aspitool_report_failure(err, start ? "load" : "eject", &address, &srb);
  fprintf(out, "%s %u:%u:%u\n", start ? "loaded" : "ejected", address.adapter, address.target, address.lun);
  return ASPITOOL_OK;
}

static int run_eject(char** arguments, int count, FILE* out, FILE* err) {
  (void)count;
  return start_stop(arguments, out, err, 0);
}

static int run_load(char** arguments, int count, FILE* out, FILE* err) {
  (void)count;
  return start_stop(arguments, out, err, 1);
}

/* The library calls back on its own thread, and signals arrive anywhere:
 * both only write a small record into this pipe, and the command's own
 * thread does the rest. A record is a kind byte and the packed address. */
static int watchPipe[2] = {-1, -1};

static void post_watch_event(char kind, unsigned int address) {
  unsigned char record[5] = {(unsigned char)kind, (unsigned char)(address >> 16), (unsigned char)(address >> 8),
                             (unsigned char)address, 0};
  ssize_t written = write(watchPipe[1], record, sizeof record);
  (void)written;
}

static void watch_arrival(unsigned int address) { post_watch_event('+', address); }
static void watch_removal(unsigned int address) { post_watch_event('-', address); }
static void watch_interrupted(int signal) { (void)signal, post_watch_event('q', 0); }

static void print_watch_event(FILE* out, char kind, const Address* address) {
  if (kind == '-') {
    fprintf(out, "removed %u:%u:%u\n", address->adapter, address->target, address->lun);
  } else {
    unsigned char data[INQUIRY_LENGTH];
    SRB_ExecSCSICmd srb;
    char vendor[9] = "?", product[17] = "?";
    if (inquire_device(address, data, &srb) == SS_COMP) {
      copy_text(vendor, data + 8, 8);
      copy_text(product, data + 16, 16);
    }
    fprintf(out, "arrived %u:%u:%u  %s  %s\n", address->adapter, address->target, address->lun, vendor, product);
  }
  fflush(out);
}

static int run_watch(char** arguments, int count, FILE* out, FILE* err) {
  (void)arguments, (void)count;
  if (pipe(watchPipe) != 0) {
    fprintf(err, "aspitool: cannot make a pipe: %s\n", strerror(errno));
    return ASPITOOL_FAILED;
  }
  ASPI_Callbacks callbacks = {watch_arrival, watch_removal};
  ASPI_putCallbacks(&callbacks);
  signal(SIGINT, watch_interrupted);
  signal(SIGTERM, watch_interrupted);
  fprintf(out, "watching %d host adapter%s for drives that come and go; interrupt to stop\n", adapter_count(),
          adapter_count() == 1 ? "" : "s");
  fflush(out);
  unsigned char record[5];
  for (;;) {
    const ssize_t n = read(watchPipe[0], record, sizeof record);
    if (n < 0 && errno == EINTR) continue;
    if (n != (ssize_t)sizeof record || record[0] == 'q') break;
    const Address address = {record[1], record[2], record[3]};
    print_watch_event(out, (char)record[0], &address);
  }
  SCSI_Done();
  return ASPITOOL_OK;
}

static int run_disc(char** arguments, int count, FILE* out, FILE* err) {
  return (jsonOutput ? aspitool_run_disc_json : aspitool_run_disc)(arguments, count, out, err);
}

/* ---- Command line ---- */

#define JSON_HELP "\nWith --json, one JSON document on standard output instead; aspitool(1)\nnames its fields."

static const Command commands[] = {
    {"scan", "[--json]",
     "Lists every host adapter the library reports, with its number and name,\n"
     "and every device at each adapter, target and LUN with its Linux nodes\n"
     "(/dev/sgN /dev/srN; - where there is none), its type (GET DEVICE TYPE) and\n"
     "its vendor, product and revision (INQUIRY). When the library sees fewer\n"
     "CD/DVD drives than the machine has, it says why on standard error: nodes\n"
     "you may not open (their group, and how to join it), nodes held by another\n"
     "program, drives without a /dev/sgN node (the sg module), or no drive at\n"
     "all. Exits with 1 when it finds no device." JSON_HELP, 0, 0, run_scan},
    {"inquiry", "[--json] A:T:L",
     "Shows the INQUIRY data of the device at adapter A, target T, LUN L." JSON_HELP, 1, 1, run_inquiry},
    {"toc", "[--json] A:T:L",
     "Shows the table of contents of the disc in the drive at A:T:L (READ TOC,\n"
     "format 0): each track's number, kind and start address, and the lead-out." JSON_HELP, 1, 1, run_toc},
    {"read", "A:T:L LBA COUNT [FILE]",
     "Reads COUNT blocks of 2048 bytes from the drive at A:T:L, starting at\n"
     "block LBA (READ(10)), and writes them to FILE, or to standard output\n"
     "without one; it will not write them to a terminal. A read of 1024 blocks\n"
     "or more shows its progress (percent, MiB/s, time left) on standard error.", 3, 4, run_read},
    {"eject", "A:T:L", "Ejects the disc of the drive at A:T:L: opens its tray (START STOP UNIT).", 1, 1, run_eject},
    {"load", "A:T:L", "Loads the disc of the drive at A:T:L: closes its tray (START STOP UNIT).", 1, 1, run_load},
    {"disc", "[--json] A:T:L",
     "Shows what the drive at A:T:L holds, as a user asks before burning: the\n"
     "disc's profile by name (DVD+R, DVD-ROM, CD-ROM, none ...; GET\n"
     "CONFIGURATION), its status (blank, appendable, complete, no disc; READ\n"
     "DISC INFORMATION), and the blocks of 2048 bytes in use (READ CAPACITY) and\n"
     "free to write (READ TRACK INFORMATION), each also in MiB." JSON_HELP, 1, 1, run_disc},
    {"write", "[--no-verify] [--multi] A:T:L IMAGE",
     "Burns the file IMAGE (an ISO image) onto the blank DVD+R in the drive at\n"
     "A:T:L, holding the drive for itself from the first check to the last\n"
     "command (exclusive mode): while another program holds it, write refuses\n"
     "at once. It checks that the drive can write, holds a blank DVD+R (or DVD+R\n"
     "DL) and that the disc has room for the image; an image whose size is not\n"
     "a multiple of 2048 bytes is padded with zeros to the next block, which it\n"
     "says. It writes the image from block 0 with WRITE(10) in transfers no\n"
     "larger than the adapter's maximum, then closes the disc (\"closing the\n"
     "disc ...\"): SYNCHRONIZE CACHE, CLOSE TRACK and CLOSE SESSION, each sent\n"
     "with IMMED and followed until the drive is done, which takes up to a few\n"
     "minutes on a real drive. By default the close finalizes the disc, which\n"
     "every DVD drive reads; with --multi the session is closed and the disc\n"
     "left appendable (a DVD+R takes further sessions; some DVD-ROM drives\n"
     "read only the first). Last it reads the disc back and compares it with the\n"
     "image, unless --no-verify is given. While the drive answers NOT READY\n"
     "because it is busy (a long write or an operation in progress), each\n"
     "command is sent again, for up to 15 minutes, and a wait longer than a few\n"
     "seconds is told. Progress (percent, MiB/s, time left) goes to standard\n"
     "error; one closing line says what was burned and whether the disc\n"
     "verified. A refusal or a failure says why, and after a failed write what\n"
     "the disc now holds, and exits with 1. Interrupted (SIGINT, SIGTERM or\n"
     "SIGHUP), it stops writing, still synchronises the cache, says what the\n"
     "disc holds and exits with 1: the track is left open, and aspitool close\n"
     "finishes the disc. An interruption during the close does not stop the\n"
     "close; it stops the read-back.", 2, 4, aspitool_run_write},
    {"close", "A:T:L",
     "Finishes the disc in the drive at A:T:L whose burn was cut short: holding\n"
     "the drive like write, it synchronises the cache, closes the open track and\n"
     "the session and finalizes the disc, so that what was written can be read.\n"
     "A complete disc is left as it is.", 1, 1, aspitool_run_close},
    {"watch", "",
     "Prints each drive that arrives or goes away, as it happens, until\n"
     "interrupted (Ctrl-C, SIGINT or SIGTERM): \"arrived A:T:L VENDOR PRODUCT\"\n"
     "with the drive's INQUIRY, or \"removed A:T:L\". The library looks every\n"
     "five seconds.", 0, 0, run_watch},
};
static const int commandCount = (int)(sizeof commands / sizeof commands[0]);

static void print_command_usage(FILE* stream, const Command* command) {
  fprintf(stream, "usage: aspitool %s%s%s\n", command->name, command->arguments[0] ? " " : "", command->arguments);
}

static void print_help(FILE* out) {
  fprintf(out, "aspitool: the CD/DVD drives this machine offers through ASPI.\n\n");
  for (int i = 0; i < commandCount; ++i) print_command_usage(out, &commands[i]);
  fprintf(out, "\nA:T:L is an ASPI device address: host adapter, target and LUN, as scan\n"
               "lists them; a drive's Linux node (/dev/srN, /dev/sgN) may stand for it.\n"
               "When a drive is not there, aspitool says why the library may not see it.\n"
               "aspitool COMMAND --help explains a command.\n"
               "Exit status: 0 done, 1 a device or command failed (or scan found no\n"
               "device), 2 bad arguments.\n");
}

static void print_command_help(FILE* out, const Command* command) {
  print_command_usage(out, command);
  fprintf(out, "\n%s\n", command->help);
}

static const Command* find_command(const char* name) {
  for (int i = 0; i < commandCount; ++i)
    if (strcmp(commands[i].name, name) == 0) return &commands[i];
  return NULL;
}

static int is_help(const char* argument) {
  return strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0 || strcmp(argument, "help") == 0;
}

#ifndef ASPITOOL_VERSION
#define ASPITOOL_VERSION "unknown" /* the build gives the project's version */
#endif

int aspitool_main(int argc, char** argv, FILE* out, FILE* err) {
  if (argc < 2) {
    print_help(err);
    return ASPITOOL_USAGE;
  }
  if (strcmp(argv[1], "--version") == 0 && argc == 2) {
    fprintf(out, "aspitool (libKavoASPI) %s\n", ASPITOOL_VERSION);
    return ASPITOOL_OK;
  }
  if (is_help(argv[1]) && argc == 2) {
    print_help(out);
    return ASPITOOL_OK;
  }
  /* "aspitool help read" and "aspitool read --help" both explain read. */
  const int helpFirst = is_help(argv[1]);
  const Command* command = find_command(argv[helpFirst ? 2 : 1]);
  if (command == NULL) {
    fprintf(err, "aspitool: unknown command \"%s\"; aspitool --help lists the commands\n", argv[helpFirst ? 2 : 1]);
    return ASPITOOL_USAGE;
  }
  char** arguments = argv + (helpFirst ? 3 : 2);
  int count = argc - (helpFirst ? 3 : 2);
  /* --json, where the command's usage offers it, may come anywhere. */
  char* kept[count + 1];
  int keptCount = 0;
  jsonOutput = 0;
  for (int i = 0; i < count; ++i) {
    if (strcmp(arguments[i], "--json") == 0 && strstr(command->arguments, "[--json]") != NULL) jsonOutput = 1;
    else kept[keptCount++] = arguments[i];
  }
  arguments = kept;
  count = keptCount;
  int showHelp = helpFirst;
  for (int i = 0; i < count; ++i) showHelp |= strcmp(arguments[i], "--help") == 0 || strcmp(arguments[i], "-h") == 0;
  if (showHelp) {
    print_command_help(out, command);
    return ASPITOOL_OK;
  }
  if (count < command->minArguments || count > command->maxArguments) {
    print_command_usage(err, command);
    return ASPITOOL_USAGE;
  }
  return command->run(arguments, count, out, err);
}
