#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "base/CDescriptor.h"
#include "client/Request.h"

namespace vxsched {

// A process of the program vxsched-change, which loads the add-in and makes one change. The object
// owns the process: the destructor kills it, if it is still running, and collects it. For one
// thread at a time.
class CChangeProcess {
public:
    // Starts the process and sends it the request; blocks while the process does not read it. It gets
    // `output` as cOutputDescriptor if request.hasOutput is set; the caller keeps it. Throws CError
    // (cNoAccess, cFailed) if it cannot be started.
    CChangeProcess(const TRequest& request, int output);
    ~CChangeProcess();
    CChangeProcess(const CChangeProcess&) = delete;
    CChangeProcess& operator=(const CChangeProcess&) = delete;

    // Waits for the next message, for at most `limit`, also if signal handlers run meanwhile.
    // Empty when the process has ended. Throws CError (cBusy) on a timeout.
    std::optional<TMessage> Next(std::chrono::milliseconds limit);

    // Answers cMessageReady: the process may make the change.
    void Go() const;

    // Sends SIGKILL; returns at once.
    void Kill() const;

    // Waits for the end of the process, without limit, and collects it. Returns how it ended, for a
    // message: "was killed by SIGKILL". To be called once.
    std::string WaitForEnd();

private:
    CDescriptor socket;
    pid_t process = -1;
    std::string received;
};

}  // namespace vxsched
