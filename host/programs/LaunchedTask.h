#pragma once

#include <list>

class TTask;

// Returns the task of the add-in's list that is being launched: the one whose own buffers
// `program` and `parameters` are. The add-in passes these to posix_spawn(), so the task is known
// even among duplicates with the same program and parameter. Null if the buffers belong to no task
// of the list. The list keeps the task; the add-in may delete it after the launch.
//
// For the thread that launches, during the launch: it holds the store mutex, and no other thread
// touches the list.
TTask* FindLaunchedTask(const std::list<TTask*>& tasks, const char* program,
                        const char* parameters);
