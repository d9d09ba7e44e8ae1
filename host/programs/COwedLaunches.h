#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

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

    // Keeps a launch that the system has refused. Does not block but for disk access.
    void Add(const TOwedLaunch& launch);

    // Readable when it is time for MakeAll(). -1 if the system has no timer.
    int Descriptor() const { return timer.Get(); }

    // Calls `make` for the oldest launch, and for the next ones until it returns false because the
    // system refuses one again; the others are no longer owed. `make` may take no lock that a
    // caller of this object holds.
    void MakeAll(const std::function<bool(const TOwedLaunch&)>& make);

    std::size_t Count();

private:
    // The caller holds `mutex`.
    void SetTimer() const;

    const CDescriptor timer;
    std::mutex mutex;  // guards `launches`
    std::deque<TOwedLaunch> launches;
};
