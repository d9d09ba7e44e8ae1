#pragma once

#include <string>

#include "VXC_Export.h"

// Writes one message to the host's log. By default that is standard error: one line with the local
// time (ISO 8601, milliseconds, offset from UTC), written by one write; a line break or another
// control character in the message becomes a blank, so a message is always one line. Any thread may
// call it. A log that cannot be written is ignored; an exception of the host's own sink passes to
// the caller.
VXC_EXPORT void VXC_LogMessage(std::string message);

// A host's own log. Called with the message as it was given, by one thread at a time; it must not
// log.
using VXC_LogSink = void (*)(const std::string& message, void* context);

// Makes `sink` the log; `context` is passed to each of its calls; null restores standard error.
// Once it returns, the sink that was set before is not running and is not called again.
VXC_EXPORT void VXC_SetLogSink(VXC_LogSink sink, void* context);
