#include "addin/CThread.h"

#include <CEvent.h>

#include <exception>
#include <string>

// `thread` is left unset on purpose.
// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
CThread::CThread(const char* name) {
    try {
        stopEvent = new CEvent(std::string(name), false);
    } catch (const std::exception&) {
        // It stays null.
    }
    pthread_attr_init(&attr);
}

CThread::~CThread() {
    if (running.load(std::memory_order_relaxed) && !stopRequested.load(std::memory_order_relaxed))
        StopWorker();
    pthread_attr_destroy(&attr);
    delete stopEvent;
}

int CThread::Start() {
    if (running.load(std::memory_order_relaxed))
        return 1;
    running.store(true, std::memory_order_relaxed);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
    return pthread_create(&thread, &attr, M_Run, this);
}

void CThread::Stop() {
    if (stopRequested.load(std::memory_order_relaxed))
        return;
    StopWorker();
}

void CThread::StopWorker() {
    stopRequested.store(true, std::memory_order_relaxed);
    if (stopEvent != nullptr)
        stopEvent->SetEvent();
    if (pthread_equal(pthread_self(), thread) == 0)
        pthread_join(thread, nullptr);
    running.store(false, std::memory_order_relaxed);
}

void* CThread::M_Run(void* arg) {
    static_cast<CThread*>(arg)->Run();
    return nullptr;
}
