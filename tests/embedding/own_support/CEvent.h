#pragma once

#include <string>

// A host's own event, of one process: enough for a host that is alone with its table.
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
