#include "store/AppliedTasks.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <vxsched/Error.h>
#include "base/Sync.h"
#include "store/CNamedTasks.h"
#include "store/Layout.h"
#include "store/MakeError.h"
#include "store/StoreAccess.h"
#include "store/TableFile.h"
#include "store/TaskFileName.h"

namespace vxsched {

namespace fs = std::filesystem;

static fs::path RecordOf(const fs::path& directory, const std::string& file) {
    return directory / cAppliedDirectory / FileNameOf(file);
}

static fs::path FreshOf(const fs::path& record) {
    return record.string() + cFreshRecordSuffix;
}

static std::vector<TTaskEntry> ReadRecord(const fs::path& record) {
    try {
        return DecodeTable(ReadBytes(record), Now()).tasks;
    } catch (const CError& error) {
        if (error.Code() != EError::cDamaged)
            throw;
        throw MakeError(EError::cRefused,
                        "{}, the record of what was made of that file, is damaged: {}; remove it, "
                        "and --prune removes none of these tasks any more",
                        record.string(), error.what());
    }
}

std::vector<TTaskEntry> ReadAppliedTasks(const fs::path& directory, const std::string& file) {
    const fs::path record = RecordOf(directory, file);
    CNamedTasks tasks(ReadRecord(record));
    for (const TTaskEntry& task : ReadRecord(FreshOf(record))) {
        if (TTaskEntry* const found = tasks.Find(task.name))
            *found = task;
        else
            tasks.Add(task);
    }
    return tasks.Tasks();
}

CAppliedTasksChange::CAppliedTasksChange(const fs::path& directory, const std::string& file,
                                         const std::vector<TTaskEntry>& tasks)
    : record(RecordOf(directory, file)), fresh(FreshOf(record)) {
    const fs::path records = directory / cAppliedDirectory;
    if (const int error = MakePrivateDirectory(records, directory); error != 0)
        throw SystemError("cannot make " + records.string(), error);
    WriteNewFile(fresh, EncodeTable(tasks), directory);
}

CAppliedTasksChange::~CAppliedTasksChange() {
    if (!isSettled)
        unlink(fresh.c_str());
}

void CAppliedTasksChange::Make() {
    isSettled = true;
    if (std::rename(fresh.c_str(), record.c_str()) == -1)
        throw SystemError("cannot replace " + record.string(), errno);
    SyncDirectory(record.parent_path().c_str());
}

}  // namespace vxsched
