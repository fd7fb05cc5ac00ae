// The operating system's identity and state behind Win32-like names: the
// last error, a millisecond pause, physical memory figures, and the name and
// version of the kernel and the Linux distribution. Every call reads the
// system afresh; nothing is kept between calls.
#pragma once

#include "runtime/export.h"
#include "runtime/string.h"

class KAVO_API CPortableSystem {
 public:
  CPortableSystem() = delete;

  // The calling thread's errno, and its text.
  static int GetLastError();
  static CBasicString<char> GetErrorString();

  // Sleeps the whole seconds (again after an interruption), then the rest.
  // Zero or negative returns at once.
  static void PauseExecution(int nMilliseconds);

  // In KiB; 0 when the kernel does not answer.
  static unsigned int GetTotalPhysicalMemory();
  static unsigned int GetFreePhysicalMemory();
  // Percentage of physical memory in use; not a number when the kernel does
  // not answer.
  static double GetMemoryLoad();

  // Kernel type and distribution, as Linux (Ubuntu 6.06 'dapper').
  static CBasicString<char> GetOSName();
  // Kernel release and machine, as 2.6.17-10-generic (i686), or unknown.
  static CBasicString<char> GetOSVersion();
  // The first two numbers of the kernel release; 0 where there is none.
  static void GetOSVersion(unsigned int& nMajor, unsigned int& nMinor);
};
