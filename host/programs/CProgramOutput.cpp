#include "host/programs/CProgramOutput.h"

#include <fmt/format.h>
#include <syslog.h>
#include <systemd/sd-journal.h>

#include <cerrno>
#include <cstring>

#include "host/CHostLog.h"
#include "host/SystemdLibrary.h"
#include "store/TaskFileName.h"

static constexpr char cJournal[] = "journal";
// Of the identifier in the journal. A task's lines are not taken for those of the host, or of another
// program, whatever its name: no encoded name has a slash.
static constexpr char cTaskPrefix[] = "task/";

CProgramOutput::CProgramOutput(const std::string& wanted) : where(wanted) {
    // Warns at startup already if there is no journal.
    if (where == cJournal)
        OpenJournal("vxschedd");
}

CDescriptor CProgramOutput::Open(const std::optional<std::string>& task) const {
    if (where != cJournal)
        return CDescriptor();
    return OpenJournal(cTaskPrefix + vxsched::FileNameOrUnknown(task));
}

CDescriptor CProgramOutput::OpenJournal(const std::string& identifier) const {
    auto* const openStream = FindInSystemd<decltype(sd_journal_stream_fd)>("sd_journal_stream_fd");
    const int stream =
        openStream == nullptr ? -ENOSYS : openStream(identifier.c_str(), LOG_INFO, 1);
    if (!isJournalMissing.exchange(stream < 0) && stream < 0)
        LogWarning(
            fmt::format("cannot connect to the journal: {}. The output of programs goes where the "
                        "host's own goes. Choose another --output.",
                        std::strerror(-stream)));
    return CDescriptor(stream);
}
