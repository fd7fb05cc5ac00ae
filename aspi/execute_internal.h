// Carrying out one execute request, and its completion.
#pragma once

#include "aspi/srb.h"

// Runs the request to completion on the calling thread and posts it exactly
// once. Always returns SS_PENDING; the outcome is in the block.
unsigned int ASPI_ExecuteSRB(SRB_ExecSCSICmd* srb);

// Stores a non-zero status and tells the application: the function in
// SRB_PostProc under SRB_POSTING, else the CPosixEvent there under
// SRB_EVENT_NOTIFY. A zero status does nothing.
void ASPI_PostSRB(SRB_ExecSCSICmd* srb, unsigned char status);
