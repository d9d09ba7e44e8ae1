#pragma once

#include <pthread.h>

#include <atomic>

class CEvent;

// A worker thread with a stop event: a derived class supplies Run(), a host calls Start() and
// Stop(). Start(), Stop() and the destructor are called by one host thread at a time; Run() runs on
// the worker.
class CThread {
public:
    // Makes the stop event of `name` (auto-reset). If it cannot be made, `stopEvent` stays null and
    // Stop() takes effect only once the worker checks `stopRequested` by itself.
    explicit CThread(const char* name);

    // Stops and joins a worker that is running and was not stopped yet. A derived class's own
    // members are gone by then, so stop the worker before destroying the object.
    virtual ~CThread();

    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    // Starts the worker. Returns 0, the error number of the thread's creation, or 1 when the object
    // was started before. An object whose thread could not be created still counts as running: no
    // second try. A stopped object does not run again: its new worker ends at once.
    virtual int Start();

    // The worker's body: returns once `stopRequested` is true and waits on `stopEvent` between the
    // iterations of its work.
    virtual void Run() = 0;

    // Asks the worker to end and waits for it without limit; called by the worker itself it does
    // not wait. Only the first call does anything. Call it on a started object only: it joins
    // whatever `thread` holds, and construction leaves that unset.
    virtual void Stop();

protected:
    pthread_t thread;  // unset until Start()
    pthread_attr_t attr;
    std::atomic<bool> stopRequested{false};  // never cleared
    std::atomic<bool> running{false};
    CEvent* stopEvent = nullptr;  // owned

private:
    static void* M_Run(void* arg);
    void StopWorker();
};
