#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "base/CDescriptor.h"
#include "host/recovery/OwedLaunches.h"

// The launches that this host owes, and when it tries to make them: once a second, one after the
// other, until the system has processes again. Any thread may call any function.
class COwedLaunches {
public:
    // The one of this process.
    static COwedLaunches& Instance();

    COwedLaunches();

    // Takes over what the former host owed. To be called once, after SettleOwedLaunches().
    void TakeOver();

    // Keeps a launch that the system has refused, in place of one of the same task and due time.
    // Does not block but for disk access.
    void Add(const TOwedLaunch& launch);

    // To be called when the launch was made otherwise: a direct client had brought its due time back.
    void ForgetMade(const std::string& task, vxsched::TTime due);

    // Readable when it is time for MakeAll(). -1 if the system has no timer.
    int Descriptor() const { return timer.Get(); }

    // Calls `make` for each launch that the table still asks for, the oldest first, until it returns
    // false because the system refuses one again; the others are no longer owed. Does nothing if the
    // table cannot be read at this moment. Holds the store mutex meanwhile, so that no launch is
    // made after a change of its task was reported; waits for it only briefly.
    void MakeAll(const std::function<bool(const TOwedLaunch&)>& make);

    // Calls `report`, with the reason, for each launch that `tasks` no longer asks for, and forgets
    // it. `tasks` is a table of which no task was lost. The caller holds the store mutex.
    void Cancel(const std::vector<vxsched::TTaskEntry>& tasks,
                const std::function<void(const TOwedLaunch&, const std::string& reason)>& report);

    std::size_t Count();

private:
    void TryToMakeAll(const std::function<bool(const TOwedLaunch&)>& make);
    // The caller holds `mutex`.
    void SetTimer() const;

    const CDescriptor timer;
    // Guards `launches`. Held during the launches; comes before the mutexes that these take.
    std::mutex mutex;
    std::deque<TOwedLaunch> launches;
};
