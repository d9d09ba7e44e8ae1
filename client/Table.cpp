#include "client/Table.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>

#include "client/CClientError.h"
#include "client/CStoreLock.h"

namespace vxsched {

namespace {

// The add-in catches up one step at a time, some hundred million in a second.
constexpr std::uint64_t cMostSteps = 100'000'000;
constexpr char cTaskFile[] = "files/scheduler.dat";
// A task takes at least this many bytes: three lengths, two times, a period and a flag.
constexpr std::size_t cSmallestTask = 3 * 4 + 2 * 8 + 4 + 4;

class CDecoder {
public:
    explicit CDecoder(std::string_view whole) : bytes(whole) {}

    std::size_t Offset() const { return offset; }
    std::size_t Left() const { return bytes.size() - offset; }

    template <typename Value>
    Value Take(const std::string& what) {
        Value value{};
        Need(sizeof value, what);
        std::memcpy(&value, bytes.data() + offset, sizeof value);
        offset += sizeof value;
        return value;
    }

    std::string TakeText(const std::string& what) {
        const std::size_t start = offset;
        const auto length = Take<std::uint32_t>("the length of " + what);
        if (length > Left())
            Damaged(start, what + " is said to have " + std::to_string(length) + " bytes, " +
                               std::to_string(Left()) + " are left");
        std::string text(bytes.substr(offset, length));
        offset += length;
        return text;
    }

    [[noreturn]] static void Damaged(std::size_t where, const std::string& what) {
        throw CClientError(EError::cDamaged,
                           "the table is damaged at offset " + std::to_string(where) + ": " + what);
    }

private:
    void Need(std::size_t size, const std::string& what) const {
        if (size > Left())
            Damaged(offset, "the file ends in " + what);
    }

    std::string_view bytes;
    std::size_t offset = 0;
};

TTime TimeOf(std::int64_t seconds) {
    return TTime(std::chrono::seconds(seconds));
}

// What a load would make of a past start.
void FindHarm(const TTaskEntry& task, TTime now, std::size_t offset,
              std::vector<TProblem>& problems) {
    if (task.period == 0 || task.next >= now)
        return;
    const std::uint32_t step = task.period * 3600U;  // wraps, as the add-in's does
    const std::uint64_t late = static_cast<std::uint64_t>(now.time_since_epoch().count()) -
                               static_cast<std::uint64_t>(task.next.time_since_epoch().count());
    if (step == 0) {
        problems.push_back({TProblem::cEndless, offset,
                            "task \"" + task.name + "\" has a period of " +
                                std::to_string(task.period) +
                                " hours, a step of zero, and a start in the past: a process that "
                                "loads the library would hang"});
    } else if (late / step > cMostSteps) {
        problems.push_back({TProblem::cSlow, offset,
                            "task \"" + task.name + "\" is " + std::to_string(late / step) +
                                " periods late: a process that loads the library would catch up "
                                "for more than a second"});
    }
}

std::string ReadWhole(const std::filesystem::path& path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor == -1) {
        if (errno == ENOENT)
            return std::string(8, '\0');
        throw CClientError(EError::cFailed,
                           "cannot read " + path.string() + ": " + std::strerror(errno));
    }
    std::string bytes;
    struct stat status {};
    if (fstat(descriptor, &status) == 0)
        bytes.reserve(static_cast<std::size_t>(status.st_size) + 1);
    char block[1 << 16];
    ssize_t count = 0;
    while ((count = read(descriptor, block, sizeof block)) != 0) {
        if (count > 0) {
            bytes.append(block, static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            const int error = errno;
            close(descriptor);
            throw CClientError(EError::cFailed,
                               "cannot read " + path.string() + ": " + std::strerror(error));
        }
    }
    close(descriptor);
    return bytes;
}

}  // namespace

bool TTable::IsSafeToLoad() const {
    return std::none_of(problems.begin(), problems.end(),
                        [](const TProblem& problem) { return problem.kind != TProblem::cUnusual; });
}

TTable DecodeTable(std::string_view bytes, TTime now) {
    TTable table;
    CDecoder decoder(bytes);
    const auto count = decoder.Take<std::uint64_t>("the number of tasks");
    if (count > decoder.Left() / cSmallestTask)
        CDecoder::Damaged(0, "it is said to have " + std::to_string(count) + " tasks, " +
                                 std::to_string(decoder.Left()) + " bytes are left for them");
    std::set<std::string> names;
    for (std::uint64_t index = 0; index < count; ++index) {
        const std::size_t start = decoder.Offset();
        const std::string which = " of task " + std::to_string(index + 1);
        TTaskEntry task;
        task.name = decoder.TakeText("the name" + which);
        task.next = TimeOf(decoder.Take<std::int64_t>("the next start" + which));
        task.last = TimeOf(decoder.Take<std::int64_t>("the last start" + which));
        task.period = decoder.Take<std::uint32_t>("the period" + which);
        task.program = decoder.TakeText("the program" + which);
        task.parameter = decoder.TakeText("the parameter" + which);
        const std::size_t flagOffset = decoder.Offset();
        const auto flag = decoder.Take<std::uint32_t>("the pause flag" + which);
        task.paused = flag != 0;
        if (flag > 1)
            table.problems.push_back({TProblem::cUnusual, flagOffset,
                                      "the pause flag" + which + " is " + std::to_string(flag) +
                                          ", which counts as paused"});
        if (task.name.find('\0') != std::string::npos)
            table.problems.push_back({TProblem::cUnusual, start,
                                      "the name" + which + " holds a zero byte: no call finds it"});
        if (!names.insert(task.name).second)
            table.problems.push_back({TProblem::cUnusual, start,
                                      "the name" + which + ", \"" + task.name +
                                          "\", is there already: calls find the first"});
        FindHarm(task, now, start, table.problems);
        table.tasks.push_back(std::move(task));
    }
    if (decoder.Left() > 0)
        table.problems.push_back({TProblem::cUnusual, decoder.Offset(),
                                  std::to_string(decoder.Left()) +
                                      " bytes behind the last task: the next write drops them"});
    return table;
}

std::string ReadTableBytes(const std::filesystem::path& directory) {
    return ReadWhole(directory / cTaskFile);
}

TTable ReadTable(const std::filesystem::path& directory, std::chrono::milliseconds patience) {
    std::string bytes;
    {
        const CStoreLock lock(patience);
        bytes = ReadTableBytes(directory);
    }
    return DecodeTable(bytes, TTime(std::chrono::seconds(std::time(nullptr))));
}

}  // namespace vxsched
