// Threads over POSIX threads. The start handshake and the end are polled,
// not signalled: the words shared without a lock (the start record's
// m_bStarted, m_nExitCode and the running marker) are only read and
// written with atomic loads and stores.
#include "runtime/thread.h"

#include <pthread.h>
#include <unistd.h>

#include <memory>
#include <type_traits>

#include "runtime/sync.h"

namespace {

const unsigned int kInfinite = 0xFFFFFFFFu;
const unsigned int kStillRunning = 1;
const int kStartSuspended = 1;

// What the creator hands the new thread. It lives on the creator's stack:
// the creator reads m_bStarted until the thread sets it, and the thread
// copies what it needs before setting it and never touches the record
// again, so the record outlives every read of it whatever the thread does.
struct StartRecord {
  CPosixThread* pThread;
  unsigned int (*pfnStart)(void*);
  void* pArg;
  unsigned int m_bStarted;  // atomic
};

// The handle storage, with the bookkeeping that the object's published
// fields have no room for. It begins with the pthread_t, so m_pThreadHandle
// still points to the handle and the object keeps its layout.
struct ThreadHandle {
  pthread_t id;
  // Kept apart from the exit code, so that a thread ending with code 1 does
  // not look alive for ever. Atomic: set by the thread before its creator
  // goes on, cleared after the exit code is stored.
  int running;
  // pthread_create succeeded. An object whose thread was never created (the
  // failure path of CThreadingBeginThread) is neither waited for nor joined.
  bool created;
  // A thread is joined once, however often GetExitCodeThread and the
  // destructor ask, from however many threads.
  bool joined;
  pthread_mutex_t joinGuard;  // guards joined and the join itself
};
static_assert(std::is_standard_layout<ThreadHandle>::value, "the handle must begin the storage");

ThreadHandle* HandleOf(pthread_t* handle) { return reinterpret_cast<ThreadHandle*>(handle); }

bool IsRunning(const ThreadHandle* handle) { return __atomic_load_n(&handle->running, __ATOMIC_ACQUIRE) != 0; }

void JoinOnce(ThreadHandle* handle) {
  pthread_mutex_lock(&handle->joinGuard);
  if (!handle->joined) pthread_join(handle->id, nullptr);
  handle->joined = true;
  pthread_mutex_unlock(&handle->joinGuard);
}

// The key lives as long as the process; pthread_once makes concurrent first
// starts safe.
pthread_key_t keyStorage;
pthread_once_t keyOnce = PTHREAD_ONCE_INIT;

void CreateKey() {
  pthread_key_create(&keyStorage, nullptr);
  __atomic_store_n(&key, &keyStorage, __ATOMIC_RELEASE);
}

}  // namespace

pthread_key_t* key = nullptr;

CThread::~CThread() {}

CThread* CThread::GetThread() {
  pthread_key_t* created = __atomic_load_n(&key, __ATOMIC_ACQUIRE);
  return created == nullptr ? nullptr : static_cast<CThread*>(pthread_getspecific(*created));
}

// Only CThreadingBeginThread registers objects under the key, and they are
// all CPosixThread.
void CThread::EndThread(unsigned int nExitCode) {
  CPosixThread* thread = static_cast<CPosixThread*>(GetThread());
  if (thread == nullptr) {
    unsigned int exitCode = nExitCode;
    pthread_exit(&exitCode);
  }
  unsigned int* exitCode = &thread->m_nExitCode;
  __atomic_store_n(exitCode, nExitCode, __ATOMIC_RELAXED);
  // From here the owner may go on to the join, which waits for pthread_exit.
  __atomic_store_n(&HandleOf(thread->m_pThreadHandle)->running, 0, __ATOMIC_RELEASE);
  pthread_exit(exitCode);
}

// A real sleep, not the system seam's: it must give up the processor in
// the unit tests too, where the seam's sleeps cost nothing and an idle
// worker would spin, and a worker left polling after a test must not
// touch the next test's world.
void CThread::YieldCPU() { usleep(1); }

CPosixThread::CPosixThread() : m_pParentThread(nullptr), m_pThreadHandle(nullptr), m_pStartGate(nullptr), m_nExitCode(0) {
  std::unique_ptr<ThreadHandle> handle(new ThreadHandle());
  m_pStartGate = new CPosixMutex(0);
  pthread_mutex_init(&handle->joinGuard, nullptr);
  m_pThreadHandle = &handle.release()->id;
  m_pParentThread = CThread::GetThread();
}

CPosixThread::~CPosixThread() {
  ThreadHandle* handle = HandleOf(m_pThreadHandle);
  if (handle->created) {
    while (IsRunning(handle)) CThread::YieldCPU();
    JoinOnce(handle);
  }
  pthread_mutex_destroy(&handle->joinGuard);
  delete handle;
  delete m_pStartGate;
}

int CPosixThread::ResumeThread() {
  m_pStartGate->Unlock();
  return 0;
}

int CPosixThread::SetThreadPriority(int) { return 1; }

int CPosixThread::GetExitCodeThread(unsigned int* pExitCode) {
  ThreadHandle* handle = HandleOf(m_pThreadHandle);
  if (IsRunning(handle)) {
    *pExitCode = kStillRunning;
    return 1;
  }
  *pExitCode = __atomic_load_n(&m_nExitCode, __ATOMIC_RELAXED);  // ordered by the load of running
  if (handle->created) JoinOnce(handle);
  return 1;
}

CThread* CPosixThread::GetParentThread() { return m_pParentThread; }

void* CPosixThread::Startup(void* pStartRecord) {
  StartRecord* record = static_cast<StartRecord*>(pStartRecord);
  CPosixThread* thread = record->pThread;
  unsigned int (*function)(void*) = record->pfnStart;
  void* argument = record->pArg;
  __atomic_store_n(&thread->m_nExitCode, kStillRunning, __ATOMIC_RELAXED);
  __atomic_store_n(&HandleOf(thread->m_pThreadHandle)->running, 1, __ATOMIC_RELEASE);
  pthread_setspecific(*key, thread);
  __atomic_store_n(&record->m_bStarted, 1u, __ATOMIC_RELEASE);  // the last touch of the record

  // Held here while the creator holds the gate (suspended start).
  thread->m_pStartGate->Lock(kInfinite);
  thread->m_pStartGate->Unlock();
  function(argument);
  CThread::EndThread(0);
}

CThread* CThreadingBeginThread(unsigned int (*pfnStart)(void*), void* pArg, int, unsigned int, int nFlags) {
  pthread_once(&keyOnce, CreateKey);
  CPosixThread* thread = new CPosixThread;
  StartRecord record = {thread, pfnStart, pArg, 0};
  const bool suspended = nFlags == kStartSuspended;
  if (suspended) thread->m_pStartGate->Lock(kInfinite);
  if (pthread_create(thread->m_pThreadHandle, nullptr, &CPosixThread::Startup, &record) != 0) {
    if (suspended) thread->m_pStartGate->Unlock();  // a held mutex must not be destroyed
    delete thread;
    return nullptr;
  }
  HandleOf(thread->m_pThreadHandle)->created = true;
  while (__atomic_load_n(&record.m_bStarted, __ATOMIC_ACQUIRE) == 0) CThread::YieldCPU();
  return thread;
}

#if defined(__i386__)
unsigned int GetCurrentThreadId() { return static_cast<unsigned int>(pthread_self()); }
#else
unsigned int GetCurrentThreadId() {
  static unsigned int lastId = 0;
  static __attribute__((tls_model("initial-exec"))) thread_local unsigned int id = 0;
  if (id == 0) id = __atomic_add_fetch(&lastId, 1, __ATOMIC_RELAXED);
  return id;
}
#endif
