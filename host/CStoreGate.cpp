#include "host/CStoreGate.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "client/CClientError.h"
#include "host/CHostError.h"
#include "host/CHostLog.h"

// A lock with a deadline: there is no call that waits for a flock for a time, and no signal handler
// to end one.
static bool LockWithin(int descriptor, std::chrono::milliseconds patience) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (flock(descriptor, LOCK_EX | LOCK_NB) == -1) {
        if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

CStoreGate::CStoreGate(std::chrono::milliseconds patience)
    : files(open("files", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (!files.IsOpen())
        throw CHostError(cNoDirectory, fmt::format("cannot open the directory \"files\": {}",
                                                   std::strerror(errno)));
    if (!LockWithin(files.Get(), patience))
        LogWarning(
            fmt::format("a client has kept the lock on the directory \"files\" for {} ms; "
                        "going on without it",
                        patience.count()));
    try {
        mutex.emplace(patience);
    } catch (const vxsched::CClientError& error) {
        if (error.Code() != vxsched::EError::cBusy)
            throw CHostError(cNoStore, error.what());
        LogWarning(fmt::format("going on without the store mutex: {}", error.what()));
    }
}

void CStoreGate::Loaded() {
    if (mutex)
        mutex->Forget();
}
