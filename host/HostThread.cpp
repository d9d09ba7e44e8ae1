#include "host/HostThread.h"

static thread_local bool gIsHostThread = false;

void MarkHostThread() {
    gIsHostThread = true;
}

bool IsHostThread() {
    return gIsHostThread;
}
