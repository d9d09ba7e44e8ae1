#pragma once

// The name of the event that the add-in's worker waits for between ticks; a signal makes it tick at
// once.
inline constexpr char cStopEventName[] = "libVantrixScheduler.so";

// The name of the event that is signalled after a change of the table.
inline constexpr char cTaskChangedEventName[] =
    "Global\\schTaskChanged-69BD-4438-B706-07D710576930";
