#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

// Traps around the IPC namespace, in which the store mutex and the events live. All of them only
// look.

// Warnings of other processes that have to do with the store in this IPC namespace. To be asked
// before this process opens the stop event.
std::vector<std::string> WarningsOfOtherUsers();

// A warning when systemd-logind would remove the semaphores of `user` once its last session ends;
// empty when it would not. `root` is where the system's files are.
std::string WarningOfRemoval(uid_t user, const std::filesystem::path& root = "/");

// A notice when this process is in another IPC namespace than process 1; empty when it is in the
// same, or when that cannot be told. `processes` is where the system shows its processes.
std::string NoticeOfPrivateNamespace(const std::filesystem::path& processes = "/proc");
