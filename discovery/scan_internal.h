// The walk over numbered device nodes and the passes of a registry build.
#pragma once

#include <functional>

// Device node paths are made in buffers of this many characters.
const int kDeviceNodePathSize = 64;

// "/dev/sg" and n in decimal; buffer holds kDeviceNodePathSize characters.
void SCSI_MakeSgDeviceName(char* buffer, int n);

// A node's Linux SCSI address as the SCSI address ioctls report it.
struct SCSI_NodeAddress {
  int host;  // the bus number: the Linux SCSI host, not the ASPI adapter
  int channel;
  int target;
  int lun;
};

// Writes the path of node n into a kDeviceNodePathSize buffer.
typedef void (*SCSI_NodePathMaker)(char* path, int n);

// Sees one node that answered its address; the descriptor is open and the
// walk closes it afterwards. Returning true ends the walk.
typedef std::function<bool(int fd, char const* path, const SCSI_NodeAddress& address)> SCSI_NodeVisitor;

// Nodes 0 to 999, opened with flags. An open refused with EACCES or EBUSY
// skips the node; any other failed open, and a node whose address ioctls
// fail, counts one failure, and the walk ends after the 16th.
void SCSI_WalkDeviceNodes(SCSI_NodePathMaker makePath, int flags, const SCSI_NodeVisitor& visit);

// On 2.6 and later kernels, true when host's ASPI adapter is driven by
// "ide-scsi": such nodes are skipped, their drives belong to the IDE pass.
bool SCSI_IsIdeScsiHost(int host);

// The passes, in build order.
void SCSI_ScanIdeDevices();
void SCSI_ScanSgDevices();
void SCSI_ScanBlockNodes();
void SCSI_MatchHalUdis();
