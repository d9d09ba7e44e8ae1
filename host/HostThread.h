#pragma once

// Whether the calling thread is one of the host's own, which set this when they begin, and not the
// add-in's worker. The worker calls time() at each tick, and only those calls are to restart the
// tick timer.
inline thread_local bool gIsHostThread = false;
