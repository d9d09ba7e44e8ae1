#pragma once

#include <string>

// The name of a signal for a message: "SIGTERM", or "signal 40" for a real-time signal and for any
// other number that has no name. Any thread may call it, but no signal handler.
std::string SignalName(int number);
