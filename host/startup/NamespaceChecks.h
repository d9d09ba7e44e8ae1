#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

// Checks for pitfalls of the IPC namespace, which holds the store mutex and the events. None of
// them changes anything.

// Returns a warning if other processes in this IPC namespace use the store's events. To be called
// before this process opens the stop event, or it finds itself.
std::vector<std::string> WarningsOfOtherUsers();

// Returns a warning if systemd-logind would remove the semaphores of `user` after its last session;
// else an empty string. `root` is the root of the file system to read.
std::string WarningOfRemoval(uid_t user, const std::filesystem::path& root = "/");

// Returns a notice if this process is in another IPC namespace than process 1; empty if it is in
// the same, or if the two cannot be compared. `processes` is the directory of procfs.
std::string NoticeOfPrivateNamespace(const std::filesystem::path& processes = "/proc");
