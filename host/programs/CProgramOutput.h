#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "base/CDescriptor.h"

// Where the output of launched programs is copied to; the runner keeps it in any case.
class CProgramOutput {
public:
    // `where` is "inherit" (where the host's own output goes), "journal", or "none". If there is no
    // journal, the log is warned, and the output goes where the host's own goes.
    explicit CProgramOutput(const std::string& where);

    bool IsCopied() const { return where != "none"; }

    // Opens the journal for one launch of a task; `task` is empty when the task is unknown. Returns a
    // closed descriptor for what goes where the host's own output goes, also if the journal cannot
    // be opened, which is logged once: a launch never fails for its output. Any thread may call it.
    CDescriptor Open(const std::optional<std::string>& task) const;

private:
    CDescriptor OpenJournal(const std::string& identifier) const;

    const std::string where;
    // The log has been warned of it, and is not again for each launch.
    mutable std::atomic<bool> isJournalMissing{false};
};
