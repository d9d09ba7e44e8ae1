#pragma once

// The event that the add-in's worker waits for between two ticks; signalled, it ticks at once.
inline constexpr char cStopEventName[] = "libVantrixScheduler.so";
