/* A stand-in for libhal.so.1 with the D-Bus functions libhal brings along.
 * Only what the library's HAL layer calls exists, with the real signatures
 * and the real DBusError layout; behaviour is scripted by the control
 * functions of libhal_double.h. */
#define _DEFAULT_SOURCE
#include "libhal_double.h"

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

typedef unsigned int dbus_bool_t;

typedef struct DBusError {
  const char* name;
  const char* message;
  unsigned int dummy1 : 1;
  unsigned int dummy2 : 1;
  unsigned int dummy3 : 1;
  unsigned int dummy4 : 1;
  unsigned int dummy5 : 1;
  void* padding1;
} DBusError;

typedef struct DBusConnection {
  int unused;
} DBusConnection;

typedef struct DBusMessage {
  int references;
  HalDoubleMethodCall call;
} DBusMessage;

typedef struct LibHalContext {
  DBusConnection* connection;
  int initialised;
} LibHalContext;

#define MAX_DEVICES 16
#define MAX_SENT_CALLS 1024

static const char* const kFunctions[] = {
    "dbus_bus_get", "dbus_connection_send_with_reply_and_block", "dbus_error_init", "dbus_error_free",
    "dbus_error_is_set", "dbus_message_new_method_call", "dbus_message_append_args", "dbus_message_unref",
    "libhal_ctx_new", "libhal_ctx_shutdown", "libhal_ctx_free", "libhal_ctx_init",
    "libhal_ctx_set_dbus_connection", "libhal_device_get_property_string",
    "libhal_find_device_by_capability", "libhal_free_string_array", "libhal_free_string"};
enum { FUNCTION_COUNT = sizeof kFunctions / sizeof kFunctions[0] };

static pthread_mutex_t guard = PTHREAD_MUTEX_INITIALIZER;

static struct {
  char udis[MAX_DEVICES][128];
  char blocks[MAX_DEVICES][128];
  int hasBlock[MAX_DEVICES];
  int deviceCount;
  int failing[HAL_DOUBLE_STEP_COUNT];
  int calls[FUNCTION_COUNT];
  int lastBusType;
  HalDoubleMethodCall sent[MAX_SENT_CALLS];
  int sentCount;
  int outstanding[HAL_DOUBLE_RESOURCE_COUNT];
  unsigned int delay;
  int inFlight;
  int maxInFlight;
} state;

static DBusConnection systemBus;

static void Copy(char* target, size_t size, const char* text) { snprintf(target, size, "%s", text ? text : ""); }

static void Count(int resource, int change) {
  pthread_mutex_lock(&guard);
  state.outstanding[resource] += change;
  pthread_mutex_unlock(&guard);
}

static int Failing(int step) {
  pthread_mutex_lock(&guard);
  int failing = state.failing[step];
  pthread_mutex_unlock(&guard);
  return failing;
}

/* Every entry point is bracketed by Enter and Leave, which count the calls
 * and how many are in progress at once. */
static void Enter(const char* function) {
  pthread_mutex_lock(&guard);
  for (int i = 0; i < FUNCTION_COUNT; ++i)
    if (strcmp(kFunctions[i], function) == 0) ++state.calls[i];
  if (++state.inFlight > state.maxInFlight) state.maxInFlight = state.inFlight;
  unsigned int delay = state.delay;
  pthread_mutex_unlock(&guard);
  if (delay) usleep(delay);
}

static void Leave(void) {
  pthread_mutex_lock(&guard);
  --state.inFlight;
  pthread_mutex_unlock(&guard);
}

static void SetError(DBusError* error, const char* name, const char* message) {
  if (error == NULL) return;
  if (error->name == NULL) Count(HAL_DOUBLE_ERRORS, 1);
  error->name = name;
  error->message = message;
}

/* Control functions. */

void halDouble_Reset(void) {
  pthread_mutex_lock(&guard);
  state.deviceCount = 0;
  state.sentCount = 0;
  state.lastBusType = -1;
  state.delay = 0;
  state.inFlight = 0;
  state.maxInFlight = 0;
  memset(state.failing, 0, sizeof state.failing);
  memset(state.calls, 0, sizeof state.calls);
  memset(state.outstanding, 0, sizeof state.outstanding);
  pthread_mutex_unlock(&guard);
}

void halDouble_AddCdrom(const char* udi, const char* blockDevice) {
  pthread_mutex_lock(&guard);
  if (state.deviceCount < MAX_DEVICES) {
    Copy(state.udis[state.deviceCount], sizeof state.udis[0], udi);
    Copy(state.blocks[state.deviceCount], sizeof state.blocks[0], blockDevice);
    state.hasBlock[state.deviceCount] = blockDevice != NULL;
    ++state.deviceCount;
  }
  pthread_mutex_unlock(&guard);
}

void halDouble_SetFailure(int step, int failing) {
  pthread_mutex_lock(&guard);
  if (step >= 0 && step < HAL_DOUBLE_STEP_COUNT) state.failing[step] = failing;
  pthread_mutex_unlock(&guard);
}

int halDouble_CallCount(const char* function) {
  int count = -1;
  pthread_mutex_lock(&guard);
  for (int i = 0; i < FUNCTION_COUNT; ++i)
    if (strcmp(kFunctions[i], function) == 0) count = state.calls[i];
  pthread_mutex_unlock(&guard);
  return count;
}

int halDouble_LastBusType(void) { return state.lastBusType; }

int halDouble_SentCallCount(void) { return state.sentCount; }

const HalDoubleMethodCall* halDouble_SentCall(int index) {
  return index >= 0 && index < state.sentCount ? &state.sent[index] : NULL;
}

int halDouble_Outstanding(int resource) {
  pthread_mutex_lock(&guard);
  int count = state.outstanding[resource];
  pthread_mutex_unlock(&guard);
  return count;
}

void halDouble_SetCallDelay(unsigned int microseconds) { state.delay = microseconds; }

int halDouble_MaxConcurrentCalls(void) { return state.maxInFlight; }

/* D-Bus. */

DBusConnection* dbus_bus_get(int type, DBusError* error) {
  Enter(__func__);
  state.lastBusType = type;
  DBusConnection* connection = &systemBus;
  if (Failing(HAL_DOUBLE_BUS)) {
    SetError(error, "org.freedesktop.DBus.Error.NoServer", "no system bus");
    connection = NULL;
  }
  Leave();
  return connection;
}

DBusMessage* dbus_connection_send_with_reply_and_block(DBusConnection* connection, DBusMessage* message,
                                                       int timeout, DBusError* error) {
  Enter(__func__);
  DBusMessage* reply = NULL;
  if (connection != &systemBus || message == NULL) {
    SetError(error, "org.freedesktop.DBus.Error.Disconnected", "not the system bus");
  } else {
    pthread_mutex_lock(&guard);
    if (state.sentCount < MAX_SENT_CALLS) state.sent[state.sentCount++] = message->call;
    pthread_mutex_unlock(&guard);
    if (Failing(HAL_DOUBLE_METHOD_CALL) || timeout != -1) {
      SetError(error, "org.freedesktop.Hal.Device.Refused", "refused");
    } else {
      reply = calloc(1, sizeof *reply);
      reply->references = 1;
      Count(HAL_DOUBLE_MESSAGES, 1);
    }
  }
  Leave();
  return reply;
}

void dbus_error_init(DBusError* error) {
  Enter(__func__);
  memset(error, 0, sizeof *error);
  error->dummy1 = 1;
  Leave();
}

void dbus_error_free(DBusError* error) {
  Enter(__func__);
  if (error->name != NULL) Count(HAL_DOUBLE_ERRORS, -1);
  error->name = NULL;
  error->message = NULL;
  Leave();
}

dbus_bool_t dbus_error_is_set(const DBusError* error) {
  Enter(__func__);
  dbus_bool_t set = error->name != NULL;
  Leave();
  return set;
}

DBusMessage* dbus_message_new_method_call(const char* destination, const char* path, const char* interface,
                                          const char* method) {
  Enter(__func__);
  DBusMessage* message = NULL;
  if (!Failing(HAL_DOUBLE_NEW_MESSAGE)) {
    message = calloc(1, sizeof *message);
    message->references = 1;
    Copy(message->call.destination, sizeof message->call.destination, destination);
    Copy(message->call.path, sizeof message->call.path, path);
    Copy(message->call.interface, sizeof message->call.interface, interface);
    Copy(message->call.method, sizeof message->call.method, method);
    Count(HAL_DOUBLE_MESSAGES, 1);
  }
  Leave();
  return message;
}

dbus_bool_t dbus_message_append_args(DBusMessage* message, int firstType, ...) {
  Enter(__func__);
  dbus_bool_t appended = !Failing(HAL_DOUBLE_APPEND_ARGS);
  va_list arguments;
  va_start(arguments, firstType);
  for (int type = firstType; appended && type != 0; type = va_arg(arguments, int)) {
    HalDoubleMethodCall* call = &message->call;
    if (type != 's' || call->argumentCount < 0 || call->argumentCount == HAL_DOUBLE_MAX_ARGUMENTS) {
      call->argumentCount = -1;
      appended = 0;
      break;
    }
    const char* const* value = va_arg(arguments, const char* const*);
    Copy(call->arguments[call->argumentCount++], sizeof call->arguments[0], *value);
  }
  va_end(arguments);
  Leave();
  return appended;
}

void dbus_message_unref(DBusMessage* message) {
  Enter(__func__);
  if (message != NULL && --message->references == 0) {
    free(message);
    Count(HAL_DOUBLE_MESSAGES, -1);
  }
  Leave();
}

/* HAL. */

static int IsReady(LibHalContext* context) { return context != NULL && context->initialised; }

LibHalContext* libhal_ctx_new(void) {
  Enter(__func__);
  LibHalContext* context = NULL;
  if (!Failing(HAL_DOUBLE_CONTEXT_NEW)) {
    context = calloc(1, sizeof *context);
    Count(HAL_DOUBLE_CONTEXTS, 1);
  }
  Leave();
  return context;
}

dbus_bool_t libhal_ctx_shutdown(LibHalContext* context, DBusError* error) {
  Enter(__func__);
  dbus_bool_t done = 1;
  if (Failing(HAL_DOUBLE_SHUTDOWN)) {
    SetError(error, "org.freedesktop.Hal.Error", "shutdown refused");
    done = 0;
  } else if (context != NULL) {
    context->initialised = 0;
  }
  Leave();
  return done;
}

dbus_bool_t libhal_ctx_free(LibHalContext* context) {
  Enter(__func__);
  if (context != NULL) {
    free(context);
    Count(HAL_DOUBLE_CONTEXTS, -1);
  }
  Leave();
  return context != NULL;
}

dbus_bool_t libhal_ctx_init(LibHalContext* context, DBusError* error) {
  Enter(__func__);
  dbus_bool_t done = 0;
  if (Failing(HAL_DOUBLE_CONTEXT_INIT)) {
    SetError(error, "org.freedesktop.Hal.Error", "init refused");
  } else if (context != NULL && context->connection == &systemBus) {
    context->initialised = 1;
    done = 1;
  }
  Leave();
  return done;
}

dbus_bool_t libhal_ctx_set_dbus_connection(LibHalContext* context, DBusConnection* connection) {
  Enter(__func__);
  dbus_bool_t done = 0;
  if (!Failing(HAL_DOUBLE_SET_CONNECTION) && context != NULL && connection != NULL) {
    context->connection = connection;
    done = 1;
  }
  Leave();
  return done;
}

char* libhal_device_get_property_string(LibHalContext* context, const char* udi, const char* key,
                                        DBusError* error) {
  Enter(__func__);
  char* value = NULL;
  pthread_mutex_lock(&guard);
  for (int i = 0; IsReady(context) && strcmp(key, "block.device") == 0 && i < state.deviceCount; ++i) {
    if (strcmp(state.udis[i], udi) == 0 && state.hasBlock[i]) {
      value = strdup(state.blocks[i]);
      ++state.outstanding[HAL_DOUBLE_STRINGS];
      break;
    }
  }
  pthread_mutex_unlock(&guard);
  if (value == NULL) SetError(error, "org.freedesktop.Hal.NoSuchProperty", "no such property");
  Leave();
  return value;
}

char** libhal_find_device_by_capability(LibHalContext* context, const char* capability, int* count,
                                        DBusError* error) {
  Enter(__func__);
  char** udis = NULL;
  if (!IsReady(context) || Failing(HAL_DOUBLE_FIND_DEVICES) || strcmp(capability, "storage.cdrom") != 0) {
    SetError(error, "org.freedesktop.Hal.Error", "no devices");
  } else {
    pthread_mutex_lock(&guard);
    udis = calloc((size_t)state.deviceCount + 1, sizeof *udis);
    for (int i = 0; i < state.deviceCount; ++i) udis[i] = strdup(state.udis[i]);
    *count = state.deviceCount;
    ++state.outstanding[HAL_DOUBLE_STRING_ARRAYS];
    pthread_mutex_unlock(&guard);
  }
  Leave();
  return udis;
}

void libhal_free_string_array(char** array) {
  Enter(__func__);
  if (array != NULL) {
    for (char** entry = array; *entry != NULL; ++entry) free(*entry);
    free(array);
    Count(HAL_DOUBLE_STRING_ARRAYS, -1);
  }
  Leave();
}

void libhal_free_string(char* s) {
  Enter(__func__);
  if (s != NULL) {
    free(s);
    Count(HAL_DOUBLE_STRINGS, -1);
  }
  Leave();
}
