#pragma once

// Ends this process as one that the signal has killed, without a crash of its own.
[[noreturn]] void EndBySignal(int signal);
