// Test-side handle on the HAL double: opens the same shared object the
// library loads as "libhal.so.1" and reaches its control functions.
#pragma once

#include <dlfcn.h>

#include <string>
#include <vector>

#include "tests/doubles/libhal_double.h"
#include "tests/fixture/world.h"

class HalDouble {
 public:
  // variant: "libhal_double" or one of the builds lacking a symbol.
  explicit HalDouble(const std::string& variant = "libhal_double")
      : path_(std::string(KAVO_HAL_DOUBLE_DIR) + "/" + variant + ".so"),
        handle_(dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
  ~HalDouble() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  HalDouble(const HalDouble&) = delete;
  HalDouble& operator=(const HalDouble&) = delete;

  bool Loaded() const { return handle_ != nullptr; }
  void MapInto(fixture::FixtureWorld& world) const { world.MapLibrary("libhal.so.1", path_); }

  void Reset() { Get<void (*)()>("halDouble_Reset")(); }
  void AddCdrom(const char* udi, const char* blockDevice) {
    Get<void (*)(const char*, const char*)>("halDouble_AddCdrom")(udi, blockDevice);
  }
  void Fail(HalDoubleStep step, bool failing = true) {
    Get<void (*)(int, int)>("halDouble_SetFailure")(step, failing ? 1 : 0);
  }
  int Calls(const char* function) { return Get<int (*)(const char*)>("halDouble_CallCount")(function); }
  int LastBusType() { return Get<int (*)()>("halDouble_LastBusType")(); }
  std::vector<HalDoubleMethodCall> Sent() {
    std::vector<HalDoubleMethodCall> calls;
    const int count = Get<int (*)()>("halDouble_SentCallCount")();
    auto at = Get<const HalDoubleMethodCall* (*)(int)>("halDouble_SentCall");
    for (int i = 0; i < count; ++i) calls.push_back(*at(i));
    return calls;
  }
  int Outstanding(HalDoubleResource resource) { return Get<int (*)(int)>("halDouble_Outstanding")(resource); }
  // Nothing handed out by HAL or D-Bus is left unreleased.
  bool AllReleased() {
    for (int resource = 0; resource < HAL_DOUBLE_RESOURCE_COUNT; ++resource)
      if (Outstanding(static_cast<HalDoubleResource>(resource)) != 0) return false;
    return true;
  }
  void SetCallDelay(unsigned int microseconds) { Get<void (*)(unsigned int)>("halDouble_SetCallDelay")(microseconds); }
  int MaxConcurrentCalls() { return Get<int (*)()>("halDouble_MaxConcurrentCalls")(); }

 private:
  template <typename Function>
  Function Get(const char* name) {
    return reinterpret_cast<Function>(dlsym(handle_, name));
  }

  std::string path_;
  void* handle_;
};
