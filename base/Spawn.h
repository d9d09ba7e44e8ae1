#pragma once

#include <signal.h>
#include <spawn.h>

#include <string>

// What posix_spawn() takes besides program, arguments and environment, freed with the object. For one thread.

class CSpawnAttributes {
public:
    CSpawnAttributes() { posix_spawnattr_init(&attributes); }
    ~CSpawnAttributes() { posix_spawnattr_destroy(&attributes); }
    CSpawnAttributes(const CSpawnAttributes&) = delete;
    CSpawnAttributes& operator=(const CSpawnAttributes&) = delete;

    // The program begins with an empty signal mask and every signal's default disposition, whatever the caller has
    // blocked and ignored.
    void ResetSignals() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        AddFlags(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }

    // The program leads a session of its own: what is typed at the caller's terminal does not end it.
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

// Done by the new process in the order in which they were added, before it becomes the program; one that fails is the
// failure of posix_spawn().
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
