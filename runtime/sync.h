// Synchronisation objects with Win32 semantics over POSIX threads: timeouts
// in milliseconds (0 tries once, 0xFFFFFFFF waits without limit), results 1
// for success and 0 for failure or time-out.
//
// These classes are part of the binary interface: applications construct a
// CPosixEvent for SRB_EVENT_NOTIFY. Class names, constructor signatures and
// the order of the virtual slots must not change.
#pragma once

#include "runtime/export.h"

class KAVO_API CPosixSyncObject {
 public:
  CPosixSyncObject();
  virtual ~CPosixSyncObject();
  virtual int Lock(unsigned int dwTimeout) = 0;
  virtual int Unlock() = 0;

 protected:
  void* m_pNative;  // the derived class's native block, owned
};

// Recursive mutex with owner semantics. A timed Lock sleeps on a release
// condition instead of polling.
class KAVO_API CPosixMutex : public CPosixSyncObject {
 public:
  explicit CPosixMutex(int bInitialOwner);
  ~CPosixMutex() override;
  int Lock(unsigned int dwTimeout) override;
  int Unlock() override;
};

class KAVO_API CPosixSemaphore : public CPosixSyncObject {
 public:
  CPosixSemaphore(int nInitialCount, int nMaxCount);
  ~CPosixSemaphore() override;
  int Lock(unsigned int dwTimeout) override;
  int Unlock() override;

 protected:
  int m_nCount;
  int m_nMaxCount;
};

// A semaphore of maximum 1: signalled when the count is 1. A manual-reset
// event sets itself again after each successful wait.
class KAVO_API CPosixEvent : public CPosixSemaphore {
 public:
  CPosixEvent(int bInitialState, int bManualReset);
  ~CPosixEvent() override;
  int SetEvent();
  int ResetEvent();
  int WaitForEvent(unsigned int dwTimeout);

 protected:
  int m_bManualReset;
};

// Counts its own successful locks and releases what is left on destruction.
// Not for use by two threads at once.
class KAVO_API CPosixSingleLock {
 public:
  CPosixSingleLock(CPosixSyncObject* pObject, int bInitialLock);
  virtual ~CPosixSingleLock();
  virtual int Lock(unsigned int dwTimeout);
  virtual int Unlock();

 protected:
  CPosixSyncObject* m_pSyncObject;
  int m_nLockCount;
};
