/* Test double of libhal.so.1 and the D-Bus functions reached through it.
 *
 * It serves a scripted list of "storage.cdrom" devices, records every D-Bus
 * method call it is asked to send, counts the resources it hands out, and
 * can be told to refuse any step. Tests reach these control functions with
 * dlsym on the handle of the double. */
#ifndef KAVO_TESTS_LIBHAL_DOUBLE_H
#define KAVO_TESTS_LIBHAL_DOUBLE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Steps that can be made to fail. */
enum HalDoubleStep {
  HAL_DOUBLE_BUS,            /* dbus_bus_get sets an error, returns null */
  HAL_DOUBLE_CONTEXT_NEW,    /* libhal_ctx_new returns null */
  HAL_DOUBLE_SET_CONNECTION, /* libhal_ctx_set_dbus_connection returns false */
  HAL_DOUBLE_CONTEXT_INIT,   /* libhal_ctx_init returns false */
  HAL_DOUBLE_SHUTDOWN,       /* libhal_ctx_shutdown sets an error */
  HAL_DOUBLE_NEW_MESSAGE,    /* dbus_message_new_method_call returns null */
  HAL_DOUBLE_APPEND_ARGS,    /* dbus_message_append_args returns false */
  HAL_DOUBLE_METHOD_CALL,    /* the call is sent, HAL answers with an error */
  HAL_DOUBLE_FIND_DEVICES,   /* libhal_find_device_by_capability returns null */
  HAL_DOUBLE_STEP_COUNT
};

/* Resources handed out and not yet given back. */
enum HalDoubleResource {
  HAL_DOUBLE_MESSAGES,      /* messages made or received, not unreferenced */
  HAL_DOUBLE_STRINGS,       /* property strings not freed */
  HAL_DOUBLE_STRING_ARRAYS, /* UDI arrays not freed */
  HAL_DOUBLE_ERRORS,        /* error records set and not freed */
  HAL_DOUBLE_CONTEXTS,      /* contexts made and not freed */
  HAL_DOUBLE_RESOURCE_COUNT
};

#define HAL_DOUBLE_MAX_ARGUMENTS 4

/* One method call as it was sent. */
typedef struct HalDoubleMethodCall {
  char destination[128];
  char path[256];
  char interface[128];
  char method[64];
  int argumentCount; /* string arguments only; -1 when another type came */
  char arguments[HAL_DOUBLE_MAX_ARGUMENTS][128];
} HalDoubleMethodCall;

void halDouble_Reset(void);
/* Adds a device; blockDevice null leaves it without "block.device". */
void halDouble_AddCdrom(const char* udi, const char* blockDevice);
void halDouble_SetFailure(int step, int failing);
/* How often the named HAL or D-Bus function was called. */
int halDouble_CallCount(const char* function);
int halDouble_LastBusType(void);
int halDouble_SentCallCount(void);
const HalDoubleMethodCall* halDouble_SentCall(int index);
int halDouble_Outstanding(int resource);
/* Each HAL or D-Bus call lingers this long, to widen races. */
void halDouble_SetCallDelay(unsigned int microseconds);
/* The most HAL or D-Bus calls ever in progress at once. */
int halDouble_MaxConcurrentCalls(void);

#ifdef __cplusplus
}
#endif

#endif
