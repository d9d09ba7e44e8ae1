#pragma once

#include <string>

// The host's own event. It works within one process only, which is enough for a host without
// clients.
class __attribute__((visibility("default"))) CEvent {
public:
    CEvent(std::string name, bool manualReset);
    virtual ~CEvent();
    virtual int Wait(int milliseconds);
    void SetEvent();
    void ResetEvent();
    int WaitSignalOrTimeout(int seconds);

private:
    bool signalled = false;
    bool manual;
};
