#pragma once

#include <signal.h>
#include <spawn.h>

#include <string>

// Attributes and file actions for posix_spawn(), freed with the object. For one thread at a time.
// Errors of the functions that prepare them, which need memory only, are ignored.
class CSpawnAttributes {
public:
    CSpawnAttributes() { posix_spawnattr_init(&attributes); }
    ~CSpawnAttributes() { posix_spawnattr_destroy(&attributes); }
    CSpawnAttributes(const CSpawnAttributes&) = delete;
    CSpawnAttributes& operator=(const CSpawnAttributes&) = delete;

    // The program gets an empty signal mask and default dispositions, instead of inheriting what
    // the caller blocks and ignores.
    void ResetSignals() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        AddFlags(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }

    // The program gets a session of its own, so that signals typed at the caller's terminal
    // (Ctrl-C) do not reach it.
    void LeadSession() { AddFlags(POSIX_SPAWN_SETSID); }

    const posix_spawnattr_t* Get() const { return &attributes; }

private:
    void AddFlags(int added) {
        short flags = 0;
        posix_spawnattr_getflags(&attributes, &flags);
        posix_spawnattr_setflags(&attributes, static_cast<short>(flags | added));
    }

    posix_spawnattr_t attributes{};
};

// Actions that the child process takes before it executes the program, in the order of the calls.
// If one fails, posix_spawn() fails with its error.
class CSpawnActions {
public:
    CSpawnActions() { posix_spawn_file_actions_init(&actions); }
    ~CSpawnActions() { posix_spawn_file_actions_destroy(&actions); }
    CSpawnActions(const CSpawnActions&) = delete;
    CSpawnActions& operator=(const CSpawnActions&) = delete;

    void Open(int descriptor, const std::string& path, int flags, mode_t mode = 0) {
        posix_spawn_file_actions_addopen(&actions, descriptor, path.c_str(), flags, mode);
    }
    void Duplicate(int from, int to) { posix_spawn_file_actions_adddup2(&actions, from, to); }
    void CloseFrom(int descriptor) {
        posix_spawn_file_actions_addclosefrom_np(&actions, descriptor);
    }

    const posix_spawn_file_actions_t* Get() const { return &actions; }

private:
    posix_spawn_file_actions_t actions{};
};
