// The command length a descriptor carries into its next write.
#pragma once

// SCSI_Fix_CMD_LEN that tells whether it issued SG_NEXT_CMD_LEN.
bool SCSI_ArmCommandLength(int fd, int opcode, int cdbLength);

// The driver drops a pending length only when a write is accepted; after a
// rejected write it would cut the next command of the descriptor to it, so
// a failed exchange clears it (SG_NEXT_CMD_LEN 0) under the device's lock.
void SCSI_DisarmCommandLength(int fd);
