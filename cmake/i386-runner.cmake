# Some amd64 kernels are built without 32-bit support and refuse to exec an
# i386 program. There every program the build runs (test discovery, tests,
# tools) goes through QEMU's user-mode emulator instead; the code and the
# binaries are the same either way.
file(WRITE ${CMAKE_BINARY_DIR}/i386-probe.c "int main(void) { return 0; }\n")
try_run(KAVO_I386_RUNS KAVO_I386_BUILDS ${CMAKE_BINARY_DIR}/i386-probe ${CMAKE_BINARY_DIR}/i386-probe.c)
# KAVO_QEMU_I386_ALWAYS takes that path on a kernel that could run them, so
# that one machine can try both.
option(KAVO_QEMU_I386_ALWAYS "Run the i386 programs under qemu-i386 even where the kernel runs them" OFF)
if(NOT KAVO_I386_RUNS EQUAL 0 OR KAVO_QEMU_I386_ALWAYS)
  find_program(KAVO_QEMU_I386 qemu-i386 REQUIRED)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KAVO_QEMU_I386})
  message(STATUS "32-bit programs run under ${KAVO_QEMU_I386}")
endif()
