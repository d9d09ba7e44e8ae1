#include "store/StoreSemaphores.h"

#include <CEvent.h>
#include <fmt/format.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <optional>

#include "store/Layout.h"
#include "store/SemaphoreArgument.h"
#include "store/StoreAccess.h"
#include "store/StoreKey.h"

namespace vxsched {

namespace {

struct TStoreSet {
    const char* name;
    int id;  // -1: there is none
    unsigned long count;
};

std::array<TStoreSet, 3> StoreSets() {
    return {{{"the store mutex", semget(StoreKey(), 0, 0), 1},
             {"the event of changed tasks", CEvent::UseOf(cTaskChangedEventName).set, 3},
             {"the worker's stop event", CEvent::UseOf(cStopEventName).set, 3}}};
}

bool OwnsFiles(uid_t user, const std::filesystem::path& directory) {
    struct stat files {};
    return stat((directory / cFilesDirectory).c_str(), &files) == 0 && files.st_uid == user;
}

// The state of a set also where this user may not read the set.
std::optional<struct semid_ds> StatusOf(int set) {
    struct semid_ds status {};
    TSemaphoreArgument argument{};
    struct seminfo limits {};
    argument.info = &limits;
    const int last = semctl(0, 0, SEM_INFO, argument);
    argument.buf = &status;
    for (int index = 0; index <= last; ++index) {
        if (semctl(index, 0, SEM_STAT_ANY, argument) == set)
            return status;
    }
    return {};
}

}  // namespace

std::string WhySemaphoresAreRefused(const std::filesystem::path& directory) {
    for (const TStoreSet& set : StoreSets()) {
        const auto status = set.id == -1 ? std::nullopt : StatusOf(set.id);
        if (!status)
            continue;
        const ipc_perm& access = status->sem_perm;
        const std::string remedy =
            fmt::format("Find out what made it, then remove it: ipcrm -s {}", set.id);
        for (const uid_t user : {access.uid, access.cuid}) {
            if (!MayUse(user, directory))
                return fmt::format(
                    "{} is a semaphore set of user {}, who could keep the tasks from being "
                    "launched. {}",
                    set.name, user, remedy);
        }
        if (status->sem_nsems < set.count)
            return fmt::format("{} has {} semaphore(s) instead of {}: no host can use it. {}",
                               set.name, status->sem_nsems, set.count, remedy);
        if (semctl(set.id, 0, GETVAL) == -1 && errno == EACCES)
            return fmt::format("{} is a semaphore set of user {}, which this user may not use. {}",
                               set.name, access.uid,
                               OwnsFiles(geteuid(), directory)
                                   ? remedy
                                   : "It is the store's own: run this as the owner of the store");
        if ((access.mode & 0006) != 0)
            return fmt::format(
                "{} is a semaphore set that any user may access (mode {:04o}), and could keep the "
                "tasks from being launched. {}",
                set.name, access.mode & 0777U, remedy);
    }
    return "";
}

void SetSemaphoreAccess(const std::filesystem::path& directory) {
    struct stat files {};
    if (stat((directory / cFilesDirectory).c_str(), &files) == -1)
        return;
    for (const TStoreSet& set : StoreSets()) {
        struct semid_ds status {};
        TSemaphoreArgument argument{};
        argument.buf = &status;
        if (set.id == -1 || semctl(set.id, 0, IPC_STAT, argument) == -1)
            continue;
        status.sem_perm.mode = static_cast<unsigned short>(PrivateMode(directory));
        status.sem_perm.uid = files.st_uid;
        status.sem_perm.gid = files.st_gid;
        semctl(set.id, 0, IPC_SET, argument);
    }
}

}  // namespace vxsched
