#include "store/AppliedTasks.h"

#include <vxsched/Error.h>
#include "store/Layout.h"
#include "store/MakeError.h"
#include "store/StoreAccess.h"
#include "store/TableFile.h"
#include "store/TaskFileName.h"

namespace vxsched {

namespace fs = std::filesystem;

static fs::path RecordOf(const fs::path& directory, const std::string& file) {
    return directory / cAppliedDirectory / (FileNameOf(file) + cAppliedSuffix);
}

std::vector<TTaskEntry> ReadAppliedTasks(const fs::path& directory, const std::string& file) {
    const fs::path record = RecordOf(directory, file);
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

void WriteAppliedTasks(const fs::path& directory, const std::string& file,
                       const std::vector<TTaskEntry>& tasks) {
    const fs::path records = directory / cAppliedDirectory;
    if (const int error = MakePrivateDirectory(records, directory); error != 0)
        throw SystemError("cannot make " + records.string(), error);
    WriteNewFile(RecordOf(directory, file), EncodeTable(tasks), directory);
}

}  // namespace vxsched
