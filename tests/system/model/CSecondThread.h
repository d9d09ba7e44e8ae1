#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

// A thread that runs what it is given, one thing after the other, while the giver waits for it.
class CSecondThread {
public:
    CSecondThread() = default;
    ~CSecondThread();
    CSecondThread(const CSecondThread&) = delete;
    CSecondThread& operator=(const CSecondThread&) = delete;

    // Returns, or throws what `work` threw, once `work` has run.
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
