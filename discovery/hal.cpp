#include "discovery/hal.h"

#include <dlfcn.h>
#include <pthread.h>
#include <string.h>

#include <atomic>

#include "runtime/os.h"

namespace {

// The parts of the HAL and D-Bus interfaces this layer calls, declared here
// because neither library is linked nor its headers needed: opaque handles,
// the error record with D-Bus's own layout, and the constants used.
struct DBusConnection;
struct DBusMessage;
struct LibHalContext;
typedef unsigned int dbus_bool_t;

struct DBusError {
  const char* name;
  const char* message;
  unsigned int dummy1 : 1;
  unsigned int dummy2 : 1;
  unsigned int dummy3 : 1;
  unsigned int dummy4 : 1;
  unsigned int dummy5 : 1;
  void* padding1;
};

const int DBUS_BUS_SYSTEM = 1;
const int DBUS_TYPE_INVALID = 0;
const int DBUS_TYPE_STRING = 's';
const int kDefaultReplyTimeout = -1;

const char kHalLibraryName[] = "libhal.so.1";
const char kHalService[] = "org.freedesktop.Hal";
const char kHalDeviceInterface[] = "org.freedesktop.Hal.Device";
const char kLockReason[] = "Locked by KavoAPI";
const char kBlockDeviceProperty[] = "block.device";
const char kCdromCapability[] = "storage.cdrom";

struct DBusFunctions {
  DBusConnection* (*bus_get)(int type, DBusError* error);
  DBusMessage* (*connection_send_with_reply_and_block)(DBusConnection* connection, DBusMessage* message,
                                                       int timeoutMilliseconds, DBusError* error);
  void (*error_init)(DBusError* error);
  void (*error_free)(DBusError* error);
  dbus_bool_t (*error_is_set)(const DBusError* error);
  DBusMessage* (*message_new_method_call)(const char* destination, const char* path, const char* interface,
                                          const char* method);
  dbus_bool_t (*message_append_args)(DBusMessage* message, int firstArgumentType, ...);
  void (*message_unref)(DBusMessage* message);
};

struct HalFunctions {
  LibHalContext* (*ctx_new)();
  dbus_bool_t (*ctx_shutdown)(LibHalContext* context, DBusError* error);
  dbus_bool_t (*ctx_free)(LibHalContext* context);
  dbus_bool_t (*ctx_init)(LibHalContext* context, DBusError* error);
  dbus_bool_t (*ctx_set_dbus_connection)(LibHalContext* context, DBusConnection* connection);
  char* (*device_get_property_string)(LibHalContext* context, const char* udi, const char* key, DBusError* error);
  char** (*find_device_by_capability)(LibHalContext* context, const char* capability, int* count, DBusError* error);
  void (*free_string_array)(char** array);
  void (*free_string)(char* s);
};

DBusFunctions DBus;
HalFunctions Hal;

// One entry of a symbol group: the exported name and the function pointer
// it fills.
struct SymbolSlot {
  const char* name;
  void* target;
};

const SymbolSlot kDBusSymbols[] = {
    {"dbus_bus_get", &DBus.bus_get},
    {"dbus_connection_send_with_reply_and_block", &DBus.connection_send_with_reply_and_block},
    {"dbus_error_init", &DBus.error_init},
    {"dbus_error_free", &DBus.error_free},
    {"dbus_error_is_set", &DBus.error_is_set},
    {"dbus_message_new_method_call", &DBus.message_new_method_call},
    {"dbus_message_append_args", &DBus.message_append_args},
    {"dbus_message_unref", &DBus.message_unref},
};

const SymbolSlot kHalSymbols[] = {
    {"libhal_ctx_new", &Hal.ctx_new},
    {"libhal_ctx_shutdown", &Hal.ctx_shutdown},
    {"libhal_ctx_free", &Hal.ctx_free},
    {"libhal_ctx_init", &Hal.ctx_init},
    {"libhal_ctx_set_dbus_connection", &Hal.ctx_set_dbus_connection},
    {"libhal_device_get_property_string", &Hal.device_get_property_string},
    {"libhal_find_device_by_capability", &Hal.find_device_by_capability},
    {"libhal_free_string_array", &Hal.free_string_array},
    {"libhal_free_string", &Hal.free_string},
};

static_assert(sizeof(void*) == sizeof(void (*)()), "symbol addresses must fit function pointers");

std::atomic<bool> HalAvailable(false);
void* HalLibraryHandle = nullptr;
DBusConnection* HalConnection = nullptr;
LibHalContext* HalContext = nullptr;
pthread_mutex_t HalMutex = PTHREAD_MUTEX_INITIALIZER;
bool HalMutexReady = true;

void EnsureHalMutex() {
  if (HalMutexReady) return;
  pthread_mutex_init(&HalMutex, nullptr);
  HalMutexReady = true;
}

class HalMutexHold {
 public:
  HalMutexHold() { pthread_mutex_lock(&HalMutex); }
  ~HalMutexHold() { pthread_mutex_unlock(&HalMutex); }
  HalMutexHold(const HalMutexHold&) = delete;
  HalMutexHold& operator=(const HalMutexHold&) = delete;
};

template <size_t N>
void ClearGroup(const SymbolSlot (&group)[N]) {
  for (const SymbolSlot& slot : group) memset(slot.target, 0, sizeof(void*));
}

// A group is usable only whole: one missing symbol leaves all of it unset.
template <size_t N>
bool ResolveGroup(const SymbolSlot (&group)[N]) {
  for (const SymbolSlot& slot : group) {
    void* address = kavo::os::FindSymbol(HalLibraryHandle, slot.name);
    if (address == nullptr) {
      ClearGroup(group);
      return false;
    }
    memcpy(slot.target, &address, sizeof address);
  }
  return true;
}

bool LoadHalLibrary() {
  if (HalLibraryHandle == nullptr) HalLibraryHandle = kavo::os::LoadLibrary(kHalLibraryName, RTLD_LAZY);
  return HalLibraryHandle != nullptr;
}

// The connection is D-Bus's shared system-bus connection; it is kept for the
// life of the process, as the symbol table has no way to release it.
bool ConnectSystemBus() {
  DBusError error;
  DBus.error_init(&error);
  HalConnection = DBus.bus_get(DBUS_BUS_SYSTEM, &error);
  const bool failed = DBus.error_is_set(&error) || HalConnection == nullptr;
  DBus.error_free(&error);
  return !failed;
}

bool CreateContext() {
  // A context left by an earlier failed start never got past its init, so
  // it is freed rather than shut down.
  if (HalContext != nullptr) Hal.ctx_free(HalContext);
  HalContext = Hal.ctx_new();
  if (HalContext == nullptr) return false;
  if (!Hal.ctx_set_dbus_connection(HalContext, HalConnection)) return false;
  return Hal.ctx_init(HalContext, nullptr) != 0;
}

bool ShutDownContext() {
  DBusError error;
  DBus.error_init(&error);
  const bool refused = !Hal.ctx_shutdown(HalContext, &error) || DBus.error_is_set(&error);
  DBus.error_free(&error);
  if (refused) return false;
  Hal.ctx_free(HalContext);
  HalContext = nullptr;
  return true;
}

// Calls a method of the HAL device object udi; reason, when given, is its
// one string argument. True when HAL answered without an error.
bool CallDeviceMethod(char const* udi, char const* method, char const* reason) {
  if (udi == nullptr || !HalAvailable || HalConnection == nullptr) return false;
  HalMutexHold hold;
  DBusMessage* message = DBus.message_new_method_call(kHalService, udi, kHalDeviceInterface, method);
  if (message == nullptr) return false;
  const bool appended = reason != nullptr
                            ? DBus.message_append_args(message, DBUS_TYPE_STRING, &reason, DBUS_TYPE_INVALID)
                            : DBus.message_append_args(message, DBUS_TYPE_INVALID);
  if (!appended) {
    DBus.message_unref(message);
    return false;
  }
  DBusError error;
  DBus.error_init(&error);
  DBusMessage* reply =
      DBus.connection_send_with_reply_and_block(HalConnection, message, kDefaultReplyTimeout, &error);
  const bool answered = !DBus.error_is_set(&error);
  DBus.error_free(&error);
  DBus.message_unref(message);
  if (reply != nullptr) DBus.message_unref(reply);
  return answered;
}

}  // namespace

// Runs before any monitor thread exists, so it takes no lock. A failure
// leaves what was set up in place for libhal_support_done to clear.
bool libhal_support_init() {
  if (HalAvailable) return true;
  EnsureHalMutex();
  if (!LoadHalLibrary()) return false;
  if (!ResolveGroup(kDBusSymbols)) return false;
  if (!ConnectSystemBus()) return false;
  if (!ResolveGroup(kHalSymbols)) return false;
  if (!CreateContext()) return false;
  HalAvailable = true;
  return true;
}

bool libhal_support_done() {
  EnsureHalMutex();
  pthread_mutex_lock(&HalMutex);
  if (HalContext != nullptr && !ShutDownContext()) {
    pthread_mutex_unlock(&HalMutex);
    return false;
  }
  ClearGroup(kHalSymbols);
  if (HalLibraryHandle != nullptr) {
    kavo::os::UnloadLibrary(HalLibraryHandle);
    HalLibraryHandle = nullptr;
  }
  ClearGroup(kDBusSymbols);
  pthread_mutex_unlock(&HalMutex);
  pthread_mutex_destroy(&HalMutex);
  HalMutexReady = false;
  HalConnection = nullptr;
  HalAvailable = false;
  return true;
}

bool libhal_support_is_available() { return HalAvailable; }

char* libhal_support_get_block_device(char const* udi) {
  if (!HalAvailable || udi == nullptr) return nullptr;
  HalMutexHold hold;
  return Hal.device_get_property_string(HalContext, udi, kBlockDeviceProperty, nullptr);
}

char** libhal_support_get_all_cdrom_devices(unsigned int* pCount) {
  if (pCount != nullptr) *pCount = 0;
  if (!HalAvailable) return nullptr;
  HalMutexHold hold;
  int count = 0;
  char** udis = Hal.find_device_by_capability(HalContext, kCdromCapability, &count, nullptr);
  if (udis != nullptr && pCount != nullptr) *pCount = static_cast<unsigned int>(count);
  return udis;
}

void libhal_support_free_string(char* s) {
  if (!HalAvailable) return;
  HalMutexHold hold;
  Hal.free_string(s);
}

void libhal_support_free_string_array(char** array) {
  if (!HalAvailable) return;
  HalMutexHold hold;
  Hal.free_string_array(array);
}

bool libhal_support_lock_device(char const* udi) { return CallDeviceMethod(udi, "Lock", kLockReason); }

bool libhal_support_unlock_device(char const* udi) { return CallDeviceMethod(udi, "Unlock", nullptr); }
