// Wall-clock text for the wire: ISO 8601 in UTC with milliseconds ("2024-05-01T08:09:10.123Z"),
// as batch files carry in "sentAt" and events in "timestamp". Pure functions, safe on any thread.
#pragma once

#include <chrono>
#include <string>

namespace pelora::platform {

// `time` as "YYYY-MM-DDTHH:MM:SS.mmmZ" (truncated to the millisecond); "" when the calendar
// conversion fails (years far outside 0...9999).
std::string iso8601(std::chrono::system_clock::time_point time);

// The current time, formatted as by iso8601().
std::string iso8601Now();

}  // namespace pelora::platform
