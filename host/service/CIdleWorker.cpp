#include "host/service/CIdleWorker.h"

#include <system_error>

#include "host/HostThread.h"

// Another scheduling process of this IPC namespace may consume the signal that ends a wait.
static constexpr int cLongestWait = 1000;  // milliseconds

CIdleWorker::CIdleWorker(CEvent& event, void (*wakeHandler)())
    : stopEvent(event), onWake(wakeHandler) {
    try {
        thread = std::thread([this] {
            gIsHostThread = true;
            while (!isStopping) {
                stopEvent.Wait(cLongestWait);
                onWake();
            }
        });
    } catch (const std::system_error&) {
        // The host launched what was due; that clients wait is no reason to end.
    }
}

CIdleWorker::~CIdleWorker() {
    isStopping = true;
    stopEvent.SetEvent();
    if (thread.joinable())
        thread.join();
}
