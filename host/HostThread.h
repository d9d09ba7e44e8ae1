#pragma once

// Distinguishes the host's own threads from the add-in's worker. The worker calls time() at each
// tick, and only those calls are to restart the tick timer.

// Marks the calling thread as one of the host's own, for good.
void MarkHostThread();

// Whether the calling thread was marked.
bool IsHostThread();
