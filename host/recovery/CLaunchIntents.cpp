#include "host/recovery/CLaunchIntents.h"

#include <VXC_CRC32.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include "base/IsoTime.h"
#include "base/RegularFile.h"
#include "base/Sync.h"
#include "host/CHostLog.h"
#include "store/Layout.h"
#include "store/TaskFileName.h"

using vxsched::cLaunchIntentsFile;
using vxsched::cLaunchRecordDirectory;

namespace {

constexpr off_t cRoom = 1 << 13;  // for about two hundred launches; more take room at their tick
constexpr std::uint64_t cMostBytes = std::uint64_t{1} << 30;

struct TBlock {
    std::string boot;
    std::int64_t generation = 0;
    std::vector<TLaunchIntent> intents;
};

// "-" where the system has none: every boot counts as the same one then.
std::string ReadBootId(const std::string& path) {
    std::string id;
    ReadRegularFile(path, cMostBytes, id);
    id.resize(std::min(id.find('\n'), id.size()));
    return id.empty() ? "-" : id;
}

std::string Encode(const TBlock& block) {
    std::string lines;
    for (const TLaunchIntent& intent : block.intents)
        lines += fmt::format("{}@{}\n", intent.task, intent.due.time_since_epoch().count());
    const std::string header = fmt::format("{} {} {}", block.boot, block.generation, lines.size());
    return fmt::format("{} {:08X}\n{}", header, VXC_GenerateCRC32(header + lines), lines);
}

// Takes the line at the beginning of `bytes`; empty if there is none.
std::string_view TakeLine(std::string_view& bytes) {
    const std::size_t end = bytes.find('\n');
    if (end == std::string_view::npos)
        return {};
    const std::string_view line = bytes.substr(0, end);
    bytes.remove_prefix(end + 1);
    return line;
}

std::optional<TLaunchIntent> DecodeIntent(const std::string& line) {
    const std::size_t at = line.rfind('@');
    long long due = 0;
    if (at == std::string::npos || std::sscanf(line.c_str() + at, "@%lld", &due) != 1)
        return {};
    return TLaunchIntent{line.substr(0, at), vxsched::TTime(std::chrono::seconds(due))};
}

// Takes the block at the beginning of `bytes`; empty if it is not complete.
std::optional<TBlock> TakeBlock(std::string_view& bytes) {
    constexpr std::size_t cLongestHeader = 200;
    std::string_view remaining = bytes;
    const std::string header(TakeLine(remaining));
    char boot[cLongestHeader];
    long long generation = 0;
    std::size_t size = 0;
    if (header.size() >= cLongestHeader ||
        std::sscanf(header.c_str(), "%s %lld %zu", boot, &generation, &size) != 3 ||
        size > remaining.size())
        return {};
    TBlock block{.boot = boot, .generation = generation, .intents = {}};
    for (std::string_view lines = remaining.substr(0, size); !lines.empty();) {
        const std::optional<TLaunchIntent> intent = DecodeIntent(std::string(TakeLine(lines)));
        if (!intent)
            return {};
        block.intents.push_back(*intent);
    }
    // Checks the checksum with everything else.
    const std::string encoded = Encode(block);
    if (!bytes.starts_with(encoded))
        return {};
    bytes.remove_prefix(encoded.size());
    return block;
}

// The blocks of the first one's generation. There are none when that block is not complete: then no
// launch of its tick was made, and all earlier ones are in the table.
std::vector<TBlock> Decode(std::string_view bytes) {
    std::vector<TBlock> blocks;
    for (std::optional<TBlock> block; (block = TakeBlock(bytes));) {
        if (!blocks.empty() &&
            (block->boot != blocks.front().boot || block->generation != blocks.front().generation))
            break;
        blocks.push_back(*std::move(block));
    }
    return blocks;
}

bool WriteAt(int descriptor, std::string_view bytes, std::size_t offset) {
    const ssize_t count =
        pwrite(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (count >= 0 && static_cast<std::size_t>(count) < bytes.size())
        errno = ENOSPC;
    return count == static_cast<ssize_t>(bytes.size());
}

// Writes to the room that the file lacks: other than fallocate(), this leaves nothing to be done
// about the file's metadata later.
bool AllocateRoom(int descriptor) {
    struct stat status {};
    if (fstat(descriptor, &status) == -1)
        return false;
    if (status.st_size >= cRoom)
        return true;
    const std::string zeros(static_cast<std::size_t>(cRoom - status.st_size), '\0');
    if (!WriteAt(descriptor, zeros, static_cast<std::size_t>(status.st_size)) ||
        !SyncFile(descriptor))
        return false;
    SyncDirectory(cLaunchRecordDirectory);
    return true;
}

void Warn(const char* what) {
    LogWarning(
        fmt::format("cannot {} {}: {}. If the power fails while a program is launched, the next "
                    "host may launch it a second time.",
                    what, cLaunchIntentsFile, std::strerror(errno)));
}

}  // namespace

bool TLaunchIntent::IsOf(const std::string& name, vxsched::TTime time) const {
    return due == time && task == vxsched::FileNameOf(name);
}

CLaunchIntents& CLaunchIntents::Instance() {
    static CLaunchIntents instance("/proc/sys/kernel/random/boot_id");
    return instance;
}

std::vector<TLaunchIntent> CLaunchIntents::Open() {
    const std::lock_guard<std::mutex> lock(mutex);
    boot = ReadBootId(bootIdFile);
    file = OpenRegularFile(cLaunchIntentsFile, O_RDWR | O_CREAT, 0600);
    std::string bytes;
    if (!file.IsOpen() || !ReadRegularFile(file.Get(), cMostBytes, bytes)) {
        Warn("read");
        file = CDescriptor();
        return {};
    }
    if (!AllocateRoom(file.Get()))
        Warn("allocate the room of");
    std::vector<TLaunchIntent> former;
    for (const TBlock& block : Decode(bytes)) {
        if (block.boot != boot)
            former.insert(former.end(), block.intents.begin(), block.intents.end());
    }
    return former;
}

void CLaunchIntents::Clear() {
    const std::lock_guard<std::mutex> lock(mutex);
    pending.clear();
    owed.clear();
    BeginGeneration();
}

void CLaunchIntents::Intend(const TLaunchIntent& launch,
                            const std::function<std::vector<TLaunchIntent>()>& findDue) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto isPending = [&](const TLaunchIntent& intent) {
        return std::find(pending.begin(), pending.end(), intent) != pending.end();
    };
    if (!file.IsOpen() || isPending(launch))
        return;
    std::vector<TLaunchIntent> added = findDue();
    // If the clock was set back since the tick has read it, the launch is not due any more.
    if (std::find(added.begin(), added.end(), launch) == added.end())
        added.push_back(launch);
    std::erase_if(added, isPending);
    if (WriteDown(added))
        pending.insert(pending.end(), added.begin(), added.end());
}

void CLaunchIntents::IntendOwed(const TLaunchIntent& launch) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (file.IsOpen() && WriteDown({launch}))
        owed.push_back(launch);
}

void CLaunchIntents::Withdraw(const TLaunchIntent& launch) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (std::erase(pending, launch) + std::erase(owed, launch) > 0)
        BeginGenerationIfEmpty();
}

void CLaunchIntents::Settle(const std::vector<vxsched::TTaskEntry>& tasks) {
    const std::lock_guard<std::mutex> lock(mutex);
    const std::size_t settled = std::erase_if(pending, [&](const TLaunchIntent& intent) {
        return std::none_of(tasks.begin(), tasks.end(), [&](const vxsched::TTaskEntry& task) {
            return intent.IsOf(task.name, task.next);
        });
    });
    if (settled > 0)
        BeginGenerationIfEmpty();
}

void CLaunchIntents::BeginGenerationIfEmpty() {
    if (pending.empty() && owed.empty())
        BeginGeneration();
}

// Not flushed: an intent that the table has settled does no harm.
void CLaunchIntents::BeginGeneration() {
    generation = std::max(generation + 1, std::int64_t{CurrentMoment().time_since_epoch().count()});
    end = 0;
    if (file.IsOpen())
        WriteAt(file.Get(), Encode({.boot = boot, .generation = generation, .intents = {}}), 0);
}

bool CLaunchIntents::Append(const std::vector<TLaunchIntent>& added) {
    const std::string block = Encode({.boot = boot, .generation = generation, .intents = added});
    if (!WriteAt(file.Get(), block, end))
        return false;
    end += block.size();
    return true;
}

// Blocks until it is on the disk.
bool CLaunchIntents::WriteDown(const std::vector<TLaunchIntent>& added) {
    if (Append(added) && SyncData(file.Get()))
        return true;
    Warn("write to");
    return false;
}
