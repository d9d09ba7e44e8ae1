#pragma once

// The name of the event that the add-in's worker waits for between ticks; a signal makes it tick at
// once.
inline constexpr char cStopEventName[] = "libVantrixScheduler.so";
