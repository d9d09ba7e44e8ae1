#pragma once

// Which store a CStore works on, and how long it waits. A plain value without checks: a missing
// directory or library is an error of the calls that use it.

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

namespace vxsched {

struct TStoreOptions {
    // The scheduling process's working directory, which has the directory "files". A relative path
    // is resolved at each call.
    std::filesystem::path directory = ".";
    // How long to wait for each lock, and for the scheduling process to make progress; from 0 to
    // ten days.
    std::chrono::milliseconds lockTimeout = std::chrono::seconds(60);
    // Make changes although tasks are due and there is no scheduling process to launch them. The
    // due tasks stay due.
    bool evenIfDue = false;
    // Path of the add-in's library; empty: libVantrixScheduler.so in the directory of this library.
    std::string addIn = {};
    // Called on the calling thread right before a change takes effect, with its locks held: the
    // change is then made even if this process ends. A process that ends before cancels the change.
    // Must not throw, and return within seconds.
    std::function<void()> onBegin = {};
    // Called on the calling thread when the scheduling process has overwritten a change, which is
    // then made again: until the next onBegin, a process that ends cancels the change. Must not
    // throw, and return within seconds.
    std::function<void()> onRetry = {};
    // Called on the calling thread when a change is made and what should follow it has failed, with
    // what that means, for a person: the scheduling process could not be notified, so that the
    // change takes effect later, or the disk could not be flushed, so that a power failure may lose
    // it. The call succeeds all the same. Must not throw.
    std::function<void(const std::string&)> onWarning = {};
};

}  // namespace vxsched
