// One execute request from start to finish: direction corrections, the
// descriptor, the exchange over the generic driver or the IDE packet ioctl,
// data, sense and status back into the block, and the completion.
#include "aspi/execute_internal.h"

#include <errno.h>
#include <limits.h>
#include <linux/cdrom.h>
#include <scsi/sg.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include "device/open_internal.h"
#include "device/registry_internal.h"
#include "device/transport.h"
#include "device/transport_internal.h"
#include "runtime/os.h"
#include "runtime/sync.h"

namespace {

const unsigned int kHeaderLength = sizeof(sg_header);
const unsigned int kMaxCdbLength = sizeof(SRB_ExecSCSICmd::CDBByte);
const unsigned int kMaxHeaderSense = SG_MAX_SENSE;
const unsigned int kIdeSenseLength = 64;
const unsigned char kDirectionIn = 1, kDirectionOut = 2;
const unsigned char kCheckCondition = 0x02;
const unsigned char kTargetStatusMask = 0x3E;  // target_status, shifted back into place
const unsigned char kAnsiVersionMask = 0x07;

const unsigned char kInquiry = 0x12;
const unsigned char kModeSense10 = 0x5A;
const unsigned char kReportKey = 0xA4;
const unsigned char kReadDvdStructure = 0xAD;
const unsigned char kSendKey = 0xA3;

struct DeviceAddress {
  int host, channel, target, lun;
};

DeviceAddress AddressOf(const SRB_ExecSCSICmd* srb) {
  const unsigned int hostAndChannel = ASPI_GetHCforController(srb->SRB_HaId);
  return {static_cast<int>(hostAndChannel >> 16), static_cast<int>(hostAndChannel & 0xFFFF), srb->SRB_Target,
          srb->SRB_Lun};
}

// Re-read at every use, so that it includes the corrections.
unsigned char DirectionOf(const SRB_ExecSCSICmd* srb) { return (srb->SRB_Flags >> 3) & 3; }

// Applications often leave the direction to the command; these commands
// always move data one way. Only the missing bit is added.
void CorrectDirection(SRB_ExecSCSICmd* srb) {
  switch (srb->CDBByte[0]) {
    case kInquiry:
    case kModeSense10:
    case kReportKey:
    case kReadDvdStructure:
      if (DirectionOf(srb) != kDirectionIn) srb->SRB_Flags |= SRB_DIR_IN;
      break;
    case kSendKey:
      if (DirectionOf(srb) != kDirectionOut) srb->SRB_Flags |= SRB_DIR_OUT;
      break;
    default:
      break;
  }
}

// The descriptor of the request, the cached one of a drive held
// exclusively, pinned until the request lets go of it, or one opened for
// this request alone and closed by it; and the device's lock around the
// exchange, exactly the mutex that was taken: the one the open took, or
// else one polled for now. Lock and pin are given back without the
// registry lock, before an owned descriptor is closed.
class RequestDescriptor {
 public:
  RequestDescriptor(const DeviceAddress& device, unsigned char cdbLength)
      : device_(device),
        request_(SCSI_OpenForRequest(device.host, device.channel, device.target, device.lun,
                                     cdbLength <= CDROM_PACKET_SIZE)) {}
  ~RequestDescriptor() { Release(); }
  RequestDescriptor(const RequestDescriptor&) = delete;
  RequestDescriptor& operator=(const RequestDescriptor&) = delete;

  bool IsOpen() const { return request_.fd != -1; }
  // The kind of the host the device was found on, whatever a rebuild has
  // made of the adapters since.
  bool OnRealScsiHost() const { return request_.onRealScsiHost; }
  int fd() const { return request_.fd; }
  // The path follows the node that was found, never a count that a rebuild
  // may be resetting meanwhile. Only for a device that is not registered
  // does the adapter number decide, and then only which refusal it gets.
  bool TakesIdePath(int adapter) const {
    return request_.registered ? request_.kind == kIdeNode : IsIDEAdapter(adapter) == 1;
  }
  // Holds the device's lock for the exchange. A device that left the
  // registry after the request opened it has no lock any more: false then.
  bool LockDevice() {
    if (request_.deviceLock == nullptr)
      request_.deviceLock = SCSI_LockDeviceLock(device_.host, device_.channel, device_.target, device_.lun);
    return request_.deviceLock != nullptr;
  }
  void Release() {
    if (request_.deviceLock != nullptr || request_.pin != nullptr)  // else already given back
      SCSI_ReleaseRequestHolds(request_.deviceLock, request_.pin);
    if (request_.fd != -1 && request_.pin == nullptr) kavo::os::Close(request_.fd);
    request_.deviceLock = nullptr;
    request_.pin = nullptr;
    request_.fd = -1;
  }

 private:
  DeviceAddress device_;
  SCSI_RequestDescriptor request_;
};

// The request and the reply of one exchange, side by side in one block. Up
// to kKeptBytes the block is the calling thread's own, reused by its next
// request and freed when the thread ends; a larger exchange gets a block of
// its own, freed with it, so that a rare huge transfer does not pin its
// memory for the thread's life. Nothing is cleared: the request header is
// zeroed by the caller, and the driver writes the whole reply header before
// a reply of full length is read.
class ExchangeBuffers {
 public:
  // The request's part holds at least a header and a whole command block.
  // The reply follows it, placed so that its data starts on a boundary of
  // kAlignment: the copy into the application's buffer then reads aligned.
  ExchangeBuffers(size_t requestLength, size_t replyLength) {
    const size_t requestPart = std::max<size_t>(requestLength, kHeaderLength + kMaxCdbLength);
    const size_t total = requestPart + kAlignment + replyLength;
    if (total > kKeptBytes) {
      own_.reset(new unsigned char[total]);
      block_ = own_.get();
    } else {
      Kept& kept = threadKept;
      if (kept.size < total) Grow(kept, total);
      block_ = kept.block;
    }
    const uintptr_t dataAt =
        (reinterpret_cast<uintptr_t>(block_) + requestPart + kHeaderLength + kAlignment - 1) & ~(kAlignment - 1);
    reply_ = block_ + (dataAt - kHeaderLength - reinterpret_cast<uintptr_t>(block_));
  }
  ExchangeBuffers(const ExchangeBuffers&) = delete;
  ExchangeBuffers& operator=(const ExchangeBuffers&) = delete;
  unsigned char* request() const { return block_; }
  unsigned char* reply() const { return reply_; }

 private:
  static const size_t kKeptBytes = 256 * 1024;
  static const size_t kAlignment = 64;
  // A plain block, reached at a fixed offset from the thread pointer (see
  // LastFoundRecord in device/registry_internal.h); the first growth
  // registers its release at thread exit.
  struct Kept {
    unsigned char* block;
    size_t size;
  };
  static __attribute__((tls_model("initial-exec"))) thread_local Kept threadKept;
  struct KeptFreedAtThreadExit {
    ~KeptFreedAtThreadExit() {
      delete[] threadKept.block;
      threadKept = {nullptr, 0};
    }
  };
  static void Grow(Kept& kept, size_t total) {
    thread_local KeptFreedAtThreadExit release;
    (void)release;
    delete[] kept.block;  // given back before the larger one is taken
    kept = {nullptr, 0};
    kept.block = new unsigned char[total];
    kept.size = total;
  }

  std::unique_ptr<unsigned char[]> own_;
  unsigned char* block_;
  unsigned char* reply_;
};

__attribute__((tls_model("initial-exec"))) thread_local ExchangeBuffers::Kept ExchangeBuffers::threadKept = {nullptr, 0};

// A data phase with no buffer to move it through is refused before any
// memory is touched.
bool LacksDataBuffer(const SRB_ExecSCSICmd* srb, bool hasDataPhase) {
  return hasDataPhase && srb->SRB_BufLen != 0 && srb->SRB_BufPointer == nullptr;
}

// The reply header carries its length as an int, and the request's length
// must fit one as well (write answers in a signed size): longer transfers
// are refused rather than wrapped or left to throw from the allocation.
bool DataLengthOverflows(const SRB_ExecSCSICmd* srb) {
  return srb->SRB_BufLen > static_cast<unsigned int>(INT_MAX) - kHeaderLength - kMaxCdbLength;
}

// At most the header's 16 sense bytes, in pieces of fixed size: every
// request copies its sense, and a call into memcpy for a dozen bytes costs
// more than the copy.
static_assert(SG_MAX_SENSE == 16, "the header carries 16 sense bytes");
template <unsigned int kPiece>
void CopyPieceIfLeft(unsigned char*& to, const unsigned char*& from, unsigned int& length) {
  if (length < kPiece) return;
  memcpy(to, from, kPiece);
  to += kPiece;
  from += kPiece;
  length -= kPiece;
}

void CopyHeaderSense(unsigned char* to, const unsigned char* from, unsigned int length) {
  CopyPieceIfLeft<8>(to, from, length);
  CopyPieceIfLeft<8>(to, from, length);
  CopyPieceIfLeft<4>(to, from, length);
  CopyPieceIfLeft<2>(to, from, length);
  CopyPieceIfLeft<1>(to, from, length);
}

// Builds the request and reply, exchanges them under the device's lock and
// copies data and sense out.
unsigned char RunGenericExchange(SRB_ExecSCSICmd* srb, const DeviceAddress& device, RequestDescriptor& descriptor) {
  const unsigned char direction = DirectionOf(srb);
  const unsigned int cdbLength = srb->SRB_CDBLen;
  const unsigned int dataOut = direction == kDirectionOut ? srb->SRB_BufLen : 0;
  const unsigned int dataIn = direction == kDirectionIn ? srb->SRB_BufLen : 0;

  const unsigned int requestLength = kHeaderLength + cdbLength + dataOut;
  const unsigned int replyLength = kHeaderLength + dataIn;
  ExchangeBuffers buffers(requestLength, replyLength);
  unsigned char* request = buffers.request();
  memset(request, 0, kHeaderLength);
  // All the block's command bytes, a fixed-size copy: those past cdbLength
  // are not sent (data out follows the command and overwrites them).
  memcpy(request + kHeaderLength, srb->CDBByte, kMaxCdbLength);
  if (dataOut != 0) memcpy(request + kHeaderLength + cdbLength, srb->SRB_BufPointer, dataOut);
  sg_header* requestHeader = reinterpret_cast<sg_header*>(request);
  sg_header* replyHeader = reinterpret_cast<sg_header*>(buffers.reply());
  requestHeader->reply_len = static_cast<int>(replyLength);

  if (!descriptor.LockDevice()) return SS_NO_DEVICE;
  unsigned int bytesRead = 0;
  const bool lengthArmed = SCSI_ArmCommandLength(descriptor.fd(), srb->CDBByte[0], static_cast<int>(cdbLength));
  const int exchanged =
      SCSI_ExchangeOnce(descriptor.fd(), requestHeader, requestLength, replyHeader, replyLength, &bytesRead);
  // A held drive's open file outlives this request: a length its rejected
  // write left armed would cut the next request's command.
  if (exchanged == 0 && lengthArmed) SCSI_DisarmCommandLength(descriptor.fd());
  descriptor.Release();

  if (exchanged == 0) return SS_ERR;
  if (replyHeader->result != 0) return replyHeader->result == EBUSY ? SS_ASPI_IS_BUSY : SS_ERR;

  if (dataIn != 0) {
    memcpy(srb->SRB_BufPointer, buffers.reply() + kHeaderLength, dataIn);
    // A drive behind an emulated host reports ANSI version 0, as it would
    // on a plain ATAPI bus. The host's kind is the one recorded with the
    // device the request found, not the adapter map's now: a rebuild while
    // the command was out may have emptied it.
    if (srb->CDBByte[0] == kInquiry && dataIn >= 3 && (srb->SRB_BufPointer[2] & kAnsiVersionMask) != 0 &&
        !descriptor.OnRealScsiHost())
      srb->SRB_BufPointer[2] &= static_cast<unsigned char>(~kAnsiVersionMask);
  }
  if (srb->SRB_SenseLen != 0)
    CopyHeaderSense(srb->SenseArea, replyHeader->sense_buffer,
                    srb->SRB_SenseLen < kMaxHeaderSense ? srb->SRB_SenseLen : kMaxHeaderSense);
  srb->SRB_HaStat = HASTAT_OK;
  srb->SRB_TargStat = buffers.reply()[16] & kTargetStatusMask;
  return SS_PENDING;  // the exchange itself went through; the target decides
}

// Fixed-format sense of a current error overrides the target status with
// its sense key. SEND KEY and REPORT KEY complete whatever the target said.
unsigned char StatusFromTarget(SRB_ExecSCSICmd* srb) {
  if ((srb->SenseArea[0] & 0x7F) == 0x70) srb->SRB_TargStat = srb->SenseArea[2] & 0x0F;
  if (srb->SRB_TargStat == 0) return SS_COMP;
  if (srb->CDBByte[0] == kSendKey || srb->CDBByte[0] == kReportKey) {
    srb->SRB_TargStat = 0;
    return SS_COMP;
  }
  return SS_ERR;
}

unsigned char ExecuteOnGenericNode(SRB_ExecSCSICmd* srb, const DeviceAddress& device, RequestDescriptor& descriptor) {
  CorrectDirection(srb);
  if (!descriptor.IsOpen()) return SS_NO_DEVICE;
  srb->SRB_Status = SS_PENDING;
  // The block holds at most 16 command bytes; the driver takes no more.
  const unsigned char direction = DirectionOf(srb);
  const bool hasDataPhase = direction == kDirectionIn || direction == kDirectionOut;
  if (srb->SRB_CDBLen == 0 || srb->SRB_CDBLen > kMaxCdbLength || LacksDataBuffer(srb, hasDataPhase) ||
      (hasDataPhase && DataLengthOverflows(srb)))
    return SS_INVALID_SRB;
  const unsigned char transportStatus = RunGenericExchange(srb, device, descriptor);
  if (transportStatus != SS_PENDING) return transportStatus;
  return StatusFromTarget(srb);
}

unsigned char IdeDataDirection(const SRB_ExecSCSICmd* srb) {
  if (srb->SRB_Flags & SRB_DIR_IN) return CGC_DATA_READ;
  if (srb->SRB_Flags & SRB_DIR_OUT) return CGC_DATA_WRITE;
  return CGC_DATA_NONE;
}

// The additional-sense-length byte tells the driver how much sense the
// caller wants beyond the first eight bytes.
unsigned char IdeSenseLengthByte(unsigned char senseLength) {
  return senseLength <= kIdeSenseLength ? static_cast<unsigned char>(senseLength - 8) : kIdeSenseLength - 8;
}

unsigned char ExecuteOnIdeNode(SRB_ExecSCSICmd* srb, RequestDescriptor& descriptor) {
  unsigned char sense[kIdeSenseLength];
  cdrom_generic_command packet;
  memset(sense, 0, sizeof sense);
  memset(&packet, 0, sizeof packet);
  if (srb->SRB_CDBLen > CDROM_PACKET_SIZE) return SS_INVALID_CMD;
  memcpy(packet.cmd, srb->CDBByte, CDROM_PACKET_SIZE);
  packet.buffer = srb->SRB_BufPointer;
  packet.buflen = srb->SRB_BufLen;
  packet.stat = 0;
  packet.sense = reinterpret_cast<struct request_sense*>(sense);
  packet.data_direction = IdeDataDirection(srb);
  packet.quiet = 1;
  packet.timeout = -1;
  sense[7] = IdeSenseLengthByte(srb->SRB_SenseLen);

  if (!descriptor.IsOpen()) return SS_NO_DEVICE;
  if (LacksDataBuffer(srb, packet.data_direction != CGC_DATA_NONE)) return SS_INVALID_SRB;
  if (!descriptor.LockDevice()) return SS_NO_DEVICE;
  const int result = kavo::os::Ioctl(descriptor.fd(), CDROM_SEND_PACKET, &packet);
  descriptor.Release();
  if (result == 0) {
    srb->SRB_HaStat = HASTAT_OK;
    return SS_COMP;
  }
  srb->SRB_TargStat = kCheckCondition;
  memcpy(srb->SenseArea, sense, srb->SRB_SenseLen < kIdeSenseLength ? srb->SRB_SenseLen : kIdeSenseLength);
  return SS_ERR;
}

unsigned char Execute(SRB_ExecSCSICmd* srb) {
  const DeviceAddress device = AddressOf(srb);
  RequestDescriptor descriptor(device, srb->SRB_CDBLen);
  return descriptor.TakesIdePath(srb->SRB_HaId) ? ExecuteOnIdeNode(srb, descriptor)
                                                 : ExecuteOnGenericNode(srb, device, descriptor);
}

}  // namespace

void ASPI_PostSRB(SRB_ExecSCSICmd* srb, unsigned char status) {
  if (status == SS_PENDING) return;
  srb->SRB_Status = status;
  if (srb->SRB_PostProc == nullptr) return;
  if (srb->SRB_Flags & SRB_POSTING) {
    reinterpret_cast<ASPI_PostProc>(srb->SRB_PostProc)(srb);
  } else if (srb->SRB_Flags & SRB_EVENT_NOTIFY) {
    static_cast<CPosixEvent*>(srb->SRB_PostProc)->SetEvent();
  }
}

// Each path returns its final status with its buffers freed and its own
// descriptor closed; the one post happens here. A request whose buffers
// cannot be allocated ends as SS_ERR: the unwinding has closed its
// descriptor and released its device lock, and it is still posted once.
unsigned int ASPI_ExecuteSRB(SRB_ExecSCSICmd* srb) {
  unsigned char status = SS_ERR;
  try {
    status = Execute(srb);
  } catch (...) {
    status = SS_ERR;
  }
  ASPI_PostSRB(srb, status);
  return SS_PENDING;
}
