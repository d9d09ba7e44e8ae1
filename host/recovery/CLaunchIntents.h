#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <vxsched/Table.h>
#include "base/CDescriptor.h"

// A launch that was about to be made.
struct TLaunchIntent {
    std::string task;  // as FileNameOf() encodes it
    vxsched::TTime due;

    bool IsOf(const std::string& name, vxsched::TTime time) const;
    bool operator==(const TLaunchIntent&) const = default;
};

// The launches that a tick is about to make, and the owed launch that the main thread is about to
// make, in files/started/intents. They are flushed to the disk before the first of them is made:
// after a power failure, which a launch record may not survive, they show which programs may have
// been launched. After a kill they show nothing that the launch records do not show, so each has
// the id of the boot it was written under.
//
// The file holds blocks. A block is a line "BOOT GENERATION SIZE CHECKSUM" and SIZE bytes of
// further lines, each NAME@DUE as in the name of a launch record. A block is added for each tick;
// once the table shows the launches of all blocks, the next one begins the file anew, with another
// GENERATION. What follows the last block of a generation has no meaning. The file's room is
// allocated at the startup, so that a full disk matters only to a tick of very many launches.
//
// Any thread may call any function. The object's mutex is a leaf; it is held during disk access.
class CLaunchIntents {
public:
    // The one of this process.
    static CLaunchIntents& Instance();

    // For tests. The id of this boot is the first line of that file.
    explicit CLaunchIntents(std::string bootIdPath) : bootIdFile(std::move(bootIdPath)) {}

    // Opens the file in the working directory, whose files/started must exist, and allocates its
    // room. Returns what was written under another boot. Failures are logged; without a file,
    // intents are not written.
    std::vector<TLaunchIntent> Open();

    // Removes the intents that Open() has found. To be called when the table is on the disk as they
    // require.
    void Clear();

    // Writes `launch` and all that `findDue` returns, and waits until it is on the disk, unless
    // `launch` was written before. A failure is logged.
    void Intend(const TLaunchIntent& launch,
                const std::function<std::vector<TLaunchIntent>()>& findDue);

    // The same for an owed launch. The table shows it as made already, so this intent stays until
    // Withdraw().
    void IntendOwed(const TLaunchIntent& launch);

    // Removes the intent of a launch that is certain: the system has refused it, or it was made and
    // the disk no longer has it as owed.
    void Withdraw(const TLaunchIntent& launch);

    // Removes the intents of a tick whose launches the table, which is on the disk, shows.
    void Settle(const std::vector<vxsched::TTaskEntry>& tasks);

private:
    // The caller holds `mutex`.
    void BeginGeneration();
    void BeginGenerationIfEmpty();
    bool Append(const std::vector<TLaunchIntent>& added);
    bool WriteDown(const std::vector<TLaunchIntent>& added);

    const std::string bootIdFile;
    std::mutex mutex;  // guards all below
    CDescriptor file;
    std::string boot;
    std::int64_t generation = 0;
    std::size_t end = 0;  // of the last block
    // Those in the blocks of this generation.
    std::vector<TLaunchIntent> pending;  // of ticks
    std::vector<TLaunchIntent> owed;
};
