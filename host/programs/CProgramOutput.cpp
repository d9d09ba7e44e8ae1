#include "host/programs/CProgramOutput.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-journal.h>

#include <cerrno>
#include <cstring>

#include "base/OpenToAppend.h"
#include "base/RotatedFile.h"
#include "host/CHostError.h"
#include "host/CHostLog.h"
#include "host/SystemdLibrary.h"
#include "store/StoreOwner.h"
#include "store/TaskFileName.h"

static constexpr char cInherit[] = "inherit";
static constexpr char cJournal[] = "journal";
// Of the identifier in the journal. A task's lines are not taken for those of the host, or of another
// program, whatever its name: no encoded name has a slash.
static constexpr char cTaskPrefix[] = "task/";
// For a launch whose task is unknown. No task's name is encoded as this.
static constexpr char cUnknown[] = "%unknown";

static CDescriptor OpenJournal(const std::string& identifier, const CProgramOutput::TWarn& warn) {
    auto* const openStream = FindInSystemd<decltype(sd_journal_stream_fd)>("sd_journal_stream_fd");
    const int descriptor =
        openStream == nullptr ? -ENOSYS : openStream(identifier.c_str(), LOG_INFO, 1);
    if (descriptor < 0)
        warn(
            fmt::format("cannot connect to the journal: {}. The program writes where the host "
                        "does. Choose another --output.",
                        std::strerror(-descriptor)));
    return CDescriptor(descriptor);
}

static void RequireOwn(const std::string& where) {
    if (const std::string reason = vxsched::WhyNotToWriteIn(where); !reason.empty())
        throw CHostError(cNoDirectory, fmt::format("cannot write the output of programs to {}: {}. "
                                                   "Choose another directory with --output.",
                                                   where, reason));
}

CProgramOutput::CProgramOutput(const std::string& wanted, std::uint64_t mostBytes)
    : where(wanted), limit(mostBytes) {
    // Warns at startup already if there is no journal.
    if (where == cJournal)
        isJournalMissing = !OpenJournal("vxschedd", LogWarning).IsOpen();
    if (where == cInherit || where == cJournal)
        return;
    RequireOwn(where);
    if (mkdir(where.c_str(), 0700) == -1 && errno != EEXIST)
        throw CHostError(cNoDirectory, fmt::format("cannot create {}: {}. Choose another directory "
                                                   "with --output.",
                                                   where, std::strerror(errno)));
    // Another user may have made it meanwhile.
    RequireOwn(where);
    if (faccessat(AT_FDCWD, (where + "/.").c_str(), W_OK | X_OK, AT_EACCESS) == -1)
        throw CHostError(cNoDirectory, fmt::format("cannot create files in {}: {}. Choose another "
                                                   "directory with --output.",
                                                   where, std::strerror(errno)));
}

CDescriptor CProgramOutput::Open(const std::optional<std::string>& task, const TWarn& warn) const {
    if (where == cInherit)
        return CDescriptor();
    const std::string name = task ? vxsched::FileNameOf(*task) : cUnknown;
    if (where != cJournal)
        return OpenFile(name, warn);
    CDescriptor stream =
        OpenJournal(cTaskPrefix + name, isJournalMissing ? TWarn([](const auto&) {}) : warn);
    isJournalMissing = !stream.IsOpen();
    return stream;
}

CDescriptor CProgramOutput::OpenFile(const std::string& fileName, const TWarn& warn) const {
    const std::string path = fmt::format("{}/{}.log", where, fileName);
    if (!RotateBeyond(path, limit))
        warn(fmt::format("cannot rename {} to .1: {}. It grows beyond --output-size.", path,
                         std::strerror(errno)));
    std::string error;
    CDescriptor file = OpenToAppend(path, 0, 0600, EAppendable::cFileOrDevice, error);
    if (!file.IsOpen())
        warn(fmt::format("cannot open {}: {}. The program writes where the host does.", path,
                         error));
    return file;
}
