#include "CSecondThread.h"

#include <utility>

CSecondThread::~CSecondThread() {
    {
        const std::lock_guard lock(mutex);
        ending = true;
    }
    changed.notify_all();
    if (thread.joinable())
        thread.join();
}

void CSecondThread::Run(const std::function<void()>& work) {
    std::unique_lock lock(mutex);
    if (!thread.joinable())
        thread = std::thread(&CSecondThread::Loop, this);
    given = &work;
    changed.notify_all();
    changed.wait(lock, [this] { return given == nullptr; });
    if (thrown)
        std::rethrow_exception(std::exchange(thrown, nullptr));
}

void CSecondThread::Loop() {
    std::unique_lock lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return given != nullptr || ending; });
        if (given == nullptr)
            return;
        try {
            (*given)();
        } catch (...) {
            thrown = std::current_exception();
        }
        given = nullptr;
        changed.notify_all();
    }
}
