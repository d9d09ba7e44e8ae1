#pragma once

// The threads of the host, told apart from the add-in's worker: the worker asks for the time at each tick, and only its
// ticks are meant to push the tick timer on.

// The calling thread is one of the host's own from now on.
void MarkHostThread();

// Whether the calling thread is.
bool IsHostThread();
