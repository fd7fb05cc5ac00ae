/* Marks the declarations that libKavoASPI exports. Everything else in the
 * library is built with hidden visibility, and the linker's version script
 * lets through only the names the interface promises. */
#ifndef KAVOASPI_RUNTIME_EXPORT_H
#define KAVOASPI_RUNTIME_EXPORT_H

#define KAVO_API __attribute__((visibility("default")))
/* For members of an exported class that are not part of the interface. */
#define KAVO_HIDDEN __attribute__((visibility("hidden")))

#ifdef __cplusplus
#define KAVO_EXTERN_C extern "C"
#else
#define KAVO_EXTERN_C
#endif

#endif
