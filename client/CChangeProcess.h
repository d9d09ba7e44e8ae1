#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "client/Request.h"

namespace vxsched {

// A process of the program vxsched-change, which loads the add-in and makes a change. Ended and
// collected, at the latest by the destructor, which kills it when it is still there.
class CChangeProcess {
public:
    // Starts it and hands it the request. Throws CError (cFailed).
    explicit CChangeProcess(const TRequest& request);
    ~CChangeProcess();
    CChangeProcess(const CChangeProcess&) = delete;
    CChangeProcess& operator=(const CChangeProcess&) = delete;

    // Its next message; none when it has ended. Throws CError (cBusy) when `patience` passes
    // without one; without limit when that is none.
    std::optional<TMessage> Next(std::optional<std::chrono::milliseconds> lockTimeout);

    void Kill() const;

    // Waits for its end, in words.
    std::string WaitForEnd();

private:
    void Send(const std::string& bytes) const;

    int socket = -1;
    pid_t process = -1;
    std::string received;
};

}  // namespace vxsched
