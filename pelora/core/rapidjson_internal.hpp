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

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
