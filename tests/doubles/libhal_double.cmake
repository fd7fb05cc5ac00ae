# The HAL double: a real shared object that the unit tests map to
# "libhal.so.1", so the HAL layer loads it through dlopen and dlsym. The
# variants each lack one symbol, one from each group the layer resolves.
set(KAVO_HAL_DOUBLE_DIR ${CMAKE_BINARY_DIR}/tests/doubles)

function(kavo_add_hal_double target)
  add_library(${target} SHARED ${CMAKE_CURRENT_LIST_DIR}/libhal_double.c)
  set_target_properties(${target} PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY ${KAVO_HAL_DOUBLE_DIR})
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-unused-parameter)
  target_link_libraries(${target} PRIVATE Threads::Threads)
  add_dependencies(kavo_unit_tests ${target})
endfunction()

kavo_add_hal_double(libhal_double)
foreach(missing dbus_message_unref libhal_free_string)
  set(script ${KAVO_HAL_DOUBLE_DIR}/libhal_double_without_${missing}.map)
  file(WRITE ${script} "{ global: *; local: ${missing}; };\n")
  kavo_add_hal_double(libhal_double_without_${missing})
  target_link_options(libhal_double_without_${missing} PRIVATE -Wl,--version-script=${script})
endforeach()

target_compile_definitions(kavo_unit_tests PRIVATE KAVO_HAL_DOUBLE_DIR="${KAVO_HAL_DOUBLE_DIR}")
