#pragma once

#include <string>

#include "base/CDescriptor.h"
#include "runs/RunRecord.h"

// The file of a run in files/running/, there and locked while its runner lives. It holds the record
// of the run if the runner dies, which is written when nobody holds the lock any more.
class CRunningFile {
public:
    // Creates the file, whose name is run.id. A failure is returned by Error(), and there is no file.
    explicit CRunningFile(const TRunRecord& run);
    CRunningFile(const CRunningFile&) = delete;
    CRunningFile& operator=(const CRunningFile&) = delete;

    const std::string& Error() const { return error; }

    // Has the record state what is known of the run since its launch.
    void Update(const TRunRecord& run);

    // Has the record be that of a run that has ended. Whoever finds the file after this process adds it
    // to the history.
    void Finish(const TRunRecord& run);

    // Removes the file: the run is recorded.
    void Remove();

    // Releases a file that is still there to whoever records the run. The last call.
    void Close() { file = CDescriptor(); }

private:
    bool Create(const TRunRecord& run);
    bool Append(const TRunRecord& run);

    const std::string path;
    CDescriptor file;
    std::string error;
};
