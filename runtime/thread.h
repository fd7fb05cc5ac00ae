// Threads with Win32-like operations over POSIX threads: start a thread on
// a function, optionally held until its creator resumes it; read its exit
// code; find the calling thread's own object and its creator's; end the
// calling thread; give up the processor briefly.
//
// Part of the binary interface: class names, the order of the virtual slots
// and the fields of CPosixThread must not change.
#pragma once

#include <pthread.h>

#include "runtime/export.h"

class CPosixMutex;

class KAVO_API CThread {
 public:
  virtual ~CThread();
  // 0 always.
  virtual int ResumeThread() = 0;
  virtual int SetThreadPriority(int nPriority) = 0;
  // Stores the exit code, or 1 while the thread still runs; returns 1.
  virtual int GetExitCodeThread(unsigned int* pExitCode) = 0;
  virtual CThread* GetParentThread() = 0;

  // The calling thread's object; null for a thread not started through
  // CThreadingBeginThread.
  static CThread* GetThread();
  // Ends the calling thread with this exit code.
  [[noreturn]] static void EndThread(unsigned int nExitCode);
  // Sleeps at least a microsecond.
  static void YieldCPU();
};

class KAVO_API CPosixThread : public CThread {
 public:
  CPosixThread();
  // Waits until the thread has ended; a thread never created is not waited for.
  ~CPosixThread() override;
  // Releases a thread started suspended, when called by its creator.
  int ResumeThread() override;
  // Does nothing; 1.
  int SetThreadPriority(int nPriority) override;
  int GetExitCodeThread(unsigned int* pExitCode) override;
  CThread* GetParentThread() override;

  // The start routine given to pthread_create; its argument is the start
  // record of CThreadingBeginThread.
  static void* Startup(void* pStartRecord);

 protected:
  // They fill in and read the thread's bookkeeping.
  friend class CThread;
  friend CThread* CThreadingBeginThread(unsigned int (*)(void*), void*, int, unsigned int, int);

  CThread* m_pParentThread;   // the creator's object, or null
  pthread_t* m_pThreadHandle; // owned; begins the thread's bookkeeping record
  CPosixMutex* m_pStartGate;  // owned; held by the creator while the thread is suspended
  unsigned int m_nExitCode;   // 1 from the start, then the code the thread ended with
};

// Starts pfnStart(pArg) on a new thread; the third and fourth arguments are
// ignored. nFlags == 1 holds the thread before its function until the
// calling thread resumes it. Returns the thread's object, owned by the
// caller, or null when no thread could be created. When it returns, the new
// thread has registered itself (GetThread works there).
KAVO_API CThread* CThreadingBeginThread(unsigned int (*pfnStart)(void*), void* pArg, int, unsigned int, int nFlags);

// The calling thread's id, a 32-bit number as the interface has it. On
// 32-bit x86 it is pthread_self(). A 64-bit pthread_self() does not fit, and
// its low half may repeat between threads, so there each thread takes a
// serial number (1, 2, ...) at its first call, its own for the process's life.
KAVO_API unsigned int GetCurrentThreadId();

// The key under which each started thread keeps its CThread*; null until
// the first CThreadingBeginThread.
extern KAVO_API pthread_key_t* key;
