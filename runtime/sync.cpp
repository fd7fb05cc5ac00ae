#include "runtime/sync.h"

#include <errno.h>
#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include "runtime/os.h"

namespace {

const unsigned int kInfinite = 0xFFFFFFFFu;

struct MutexNative {
  pthread_mutex_t mutex;          // the mutex proper, recursive
  pthread_mutex_t waitGuard;      // closes the gap between trylock and wait
  pthread_cond_t releaseSignal;   // signalled by every successful Unlock
};

struct SemaphoreNative {
  pthread_mutex_t guard;
  pthread_cond_t available;
};

// The absolute wall-clock deadline that pthread_cond_timedwait expects.
timespec DeadlineAfter(unsigned int milliseconds) {
  timeval now;
  kavo::os::GetTimeOfDay(&now);
  timespec deadline;
  deadline.tv_sec = now.tv_sec + milliseconds / 1000u;
  long nanoseconds = now.tv_usec * 1000L + static_cast<long>(milliseconds % 1000u) * 1000000L;
  if (nanoseconds >= 1000000000L) {
    deadline.tv_sec += 1;
    nanoseconds -= 1000000000L;
  }
  deadline.tv_nsec = nanoseconds;
  return deadline;
}

MutexNative* AsMutex(void* native) { return static_cast<MutexNative*>(native); }
SemaphoreNative* AsSemaphore(void* native) { return static_cast<SemaphoreNative*>(native); }

}  // namespace

CPosixSyncObject::CPosixSyncObject() : m_pNative(nullptr) {}

CPosixSyncObject::~CPosixSyncObject() {}

CPosixMutex::CPosixMutex(int bInitialOwner) {
  MutexNative* native = new MutexNative;
  pthread_mutex_init(&native->waitGuard, nullptr);
  pthread_cond_init(&native->releaseSignal, nullptr);
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&native->mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  m_pNative = native;
  if (bInitialOwner == 1) pthread_mutex_lock(&native->mutex);
}

CPosixMutex::~CPosixMutex() {
  MutexNative* native = AsMutex(m_pNative);
  if (native == nullptr) return;
  pthread_mutex_destroy(&native->mutex);
  pthread_cond_destroy(&native->releaseSignal);
  pthread_mutex_destroy(&native->waitGuard);
  delete native;
  m_pNative = nullptr;
}

namespace {

// The waits of CPosixMutex::Lock, kept out of it so that the try of a zero
// timeout, which every request makes several times, runs without them.
__attribute__((noinline)) int WaitForMutex(MutexNative* native, unsigned int dwTimeout) {
  if (dwTimeout == kInfinite) {
    pthread_mutex_lock(&native->mutex);
    return 1;
  }
  const timespec deadline = DeadlineAfter(dwTimeout);
  for (;;) {
    pthread_mutex_lock(&native->waitGuard);
    if (pthread_mutex_trylock(&native->mutex) == 0) {
      pthread_mutex_unlock(&native->waitGuard);
      return 1;
    }
    int waited = pthread_cond_timedwait(&native->releaseSignal, &native->waitGuard, &deadline);
    pthread_mutex_unlock(&native->waitGuard);
    if (waited == ETIMEDOUT) return 0;
  }
}

}  // namespace

int CPosixMutex::Lock(unsigned int dwTimeout) {
  MutexNative* native = AsMutex(m_pNative);
  if (native == nullptr) return 0;
  if (dwTimeout == 0) return pthread_mutex_trylock(&native->mutex) == 0 ? 1 : 0;
  return WaitForMutex(native, dwTimeout);
}

int CPosixMutex::Unlock() {
  MutexNative* native = AsMutex(m_pNative);
  if (native == nullptr) return 0;
  pthread_mutex_lock(&native->waitGuard);
  const bool released = pthread_mutex_unlock(&native->mutex) == 0;
  if (released) pthread_cond_signal(&native->releaseSignal);
  pthread_mutex_unlock(&native->waitGuard);
  return released ? 1 : 0;
}

CPosixSemaphore::CPosixSemaphore(int nInitialCount, int nMaxCount)
    : m_nCount(nInitialCount), m_nMaxCount(nMaxCount) {
  SemaphoreNative* native = new SemaphoreNative;
  pthread_mutex_init(&native->guard, nullptr);
  pthread_cond_init(&native->available, nullptr);
  m_pNative = native;
}

CPosixSemaphore::~CPosixSemaphore() {
  SemaphoreNative* native = AsSemaphore(m_pNative);
  if (native == nullptr) return;
  pthread_mutex_destroy(&native->guard);
  pthread_cond_destroy(&native->available);
  delete native;
  m_pNative = nullptr;
}

int CPosixSemaphore::Lock(unsigned int dwTimeout) {
  SemaphoreNative* native = AsSemaphore(m_pNative);
  if (native == nullptr) return 0;
  if (dwTimeout == 0) {
    pthread_mutex_lock(&native->guard);
    const bool taken = m_nCount >= 1;
    if (taken) --m_nCount;
    pthread_mutex_unlock(&native->guard);
    return taken ? 1 : 0;
  }
  if (dwTimeout == kInfinite) {
    pthread_mutex_lock(&native->guard);
    while (m_nCount <= 0) pthread_cond_wait(&native->available, &native->guard);
    --m_nCount;
    pthread_mutex_unlock(&native->guard);
    return 1;
  }
  const timespec deadline = DeadlineAfter(dwTimeout);
  pthread_mutex_lock(&native->guard);
  for (;;) {
    if (m_nCount > 0) {
      --m_nCount;
      pthread_mutex_unlock(&native->guard);
      return 1;
    }
    if (pthread_cond_timedwait(&native->available, &native->guard, &deadline) == ETIMEDOUT) {
      pthread_mutex_unlock(&native->guard);
      return 0;
    }
  }
}

int CPosixSemaphore::Unlock() {
  SemaphoreNative* native = AsSemaphore(m_pNative);
  if (native == nullptr) return 0;
  pthread_mutex_lock(&native->guard);
  if (m_nCount < m_nMaxCount) {
    ++m_nCount;
    pthread_cond_signal(&native->available);
  }
  pthread_mutex_unlock(&native->guard);
  return 1;
}

CPosixEvent::CPosixEvent(int bInitialState, int bManualReset)
    : CPosixSemaphore(1, 1), m_bManualReset(bManualReset) {
  if (bInitialState == 0) ResetEvent();
}

CPosixEvent::~CPosixEvent() {}

int CPosixEvent::SetEvent() { return Unlock(); }

int CPosixEvent::ResetEvent() { return Lock(0); }

int CPosixEvent::WaitForEvent(unsigned int dwTimeout) {
  const int signalled = Lock(dwTimeout);
  if (signalled && m_bManualReset) Unlock();
  return signalled;
}

CPosixSingleLock::CPosixSingleLock(CPosixSyncObject* pObject, int bInitialLock)
    : m_pSyncObject(pObject), m_nLockCount(0) {
  if (bInitialLock) Lock(kInfinite);
}

CPosixSingleLock::~CPosixSingleLock() {
  for (int remaining = m_nLockCount; remaining > 0; --remaining) m_pSyncObject->Unlock();
}

int CPosixSingleLock::Lock(unsigned int dwTimeout) {
  const int result = m_pSyncObject->Lock(dwTimeout);
  if (result) ++m_nLockCount;
  return result;
}

int CPosixSingleLock::Unlock() {
  const int result = m_pSyncObject->Unlock();
  if (result) --m_nLockCount;
  return result;
}
