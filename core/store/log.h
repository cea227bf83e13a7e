// The diagnostic log: one line per message, "<ISO 8601 UTC time> <message>",
// appended to locations::logFile(). Logging never fails loudly.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orvel {

// The store's log line; the line is also copied to standard error unless the
// echo has been switched off (the command line does, so that routine upgrade
// notes do not clutter a terminal; its --verbose switches them back on).
void note(std::string_view message);

// Appends one formatted line to the log file, without the stderr copy
// (the app's klog uses this).
void appendLogLine(std::string_view message);

void setNoteEcho(bool echo);

// "2026-11-21T11:47:02Z": the current time, UTC, to the second.
std::string isoNow();

// Unix seconds as local time in a strftime format ("%Y-%m-%d %H:%M:%S").
std::string localTimeText(int64_t unixSeconds, const char* format);

}  // namespace orvel
