#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Kills at each system call of each program: a scenario is run once for each call, and the program
// is killed there. Afterwards the table is the old or the new one, the next commands and the next
// host are not kept waiting, no task is lost, and each due time was launched once or is reported as
// missed. Where only the change process of a command is killed, what the command reports is what
// the table shows.

// The names of the scenarios. Those of the second kind wait at each call for the seconds after which
// a wedged mutex is set free.
std::vector<std::string> KillScenarios();
std::vector<std::string> KillScenariosOnAWedgedMutex();

// Tries `most` of the calls of a scenario, at equal distances from a random first one; 0: all. It
// prints the seed; KILL_POINTS_SEED repeats a run, KILL_POINT tries one call. Fails the test for
// each call after which something is not as it should be.
void TryKillPoints(const std::string& scenario, std::size_t most);
