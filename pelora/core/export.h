/* PELORA_API marks what the shared library exports, for the C++ API and the C API alike;
 * everything else is built hidden. Plain C, so that <pelora/pelora.h> can use it too. */
#ifndef PELORA_CORE_EXPORT_H
#define PELORA_CORE_EXPORT_H

#define PELORA_API __attribute__((visibility("default")))

#endif /* PELORA_CORE_EXPORT_H */
