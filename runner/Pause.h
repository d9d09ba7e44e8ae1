#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>

// How long to wait after the attempt of that number, from 1, has failed: `backoff`, twice as long after
// each further one, by up to a quarter more or less, and an hour at most. `random` is in [0, 1).
std::chrono::milliseconds PauseAfter(int attempt, std::chrono::seconds backoff, double random);

// In [0, 1), another one in each process.
double MakeRandom();

// Waits, in a process that blocks SIGTERM, without a suspended machine. Returns early at SIGTERM, with
// the user who has sent it.
std::optional<uid_t> Pause(std::chrono::milliseconds time);
