// The one way library code includes RapidJSON: its internal consistency checks throw instead of
// aborting, so a host's faulty encode function can never take the process down.
#pragma once

#include <stdexcept>

#ifndef RAPIDJSON_ASSERT
#define RAPIDJSON_ASSERT(condition)                                               \
  do {                                                                            \
    if (!(condition)) throw std::logic_error("JSON writer misused: " #condition); \
  } while (false)
#endif
#define RAPIDJSON_HAS_STDSTRING 1

// The SIMD string scans of RapidJSON 1.1.0 compare against 0x19 instead of 0x1F, so the writer
// leaves 0x1A-0x1F unescaped and the text it writes is not JSON.
#if defined(RAPIDJSON_SSE2) || defined(RAPIDJSON_SSE42) || defined(RAPIDJSON_NEON)
#error "RapidJSON's SIMD string scans write control characters unescaped; leave them off"
#endif

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
