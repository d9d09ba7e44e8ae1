#pragma once

#include <filesystem>
#include <string>

// Checks for pitfalls of the IPC namespace, which holds the store mutex and the events. None of
// them changes anything.

// Returns a warning if other processes in this IPC namespace use the store's events; else an empty
// string. To be called before this process opens the stop event, or it finds itself.
std::string WarningOfOtherUsers();

// Returns a notice if this process is in another IPC namespace than process 1; empty if it is in
// the same, or if the two cannot be compared. `processes` is the directory of procfs.
std::string NoticeOfPrivateNamespace(const std::filesystem::path& processes = "/proc");
