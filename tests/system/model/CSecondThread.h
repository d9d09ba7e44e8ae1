#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

// A thread that runs functions one after the other, each while the caller of Run() waits.
class CSecondThread {
public:
    CSecondThread() = default;
    ~CSecondThread();
    CSecondThread(const CSecondThread&) = delete;
    CSecondThread& operator=(const CSecondThread&) = delete;

    // Runs `work` on the thread and waits for it. Throws what `work` threw.
    void Run(const std::function<void()>& work);

private:
    void Loop();

    std::mutex mutex;
    std::condition_variable changed;
    const std::function<void()>* given = nullptr;
    std::exception_ptr thrown;
    bool ending = false;
    std::thread thread;  // from the first Run() on
};
