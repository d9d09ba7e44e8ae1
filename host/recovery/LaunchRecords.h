#pragma once

#include <string>
#include <vector>

#include <vxsched/Table.h>

// Marks of starts in files/started/: a file for each task and due time for which a program was
// started, made by the program's own process right before it becomes the program. So a start and its
// mark are one, also when the host is killed in between; and as long as the table does not show the
// start, the mark does.

struct TLaunchRecord {
    std::string task;  // as LaunchRecordName() has it
    vxsched::TTime due;
    vxsched::TTime started;  // when it was made

    bool IsOf(const std::string& name, vxsched::TTime time) const;
};

// A task's name as a part of a file's: what is no letter and no digit as %XX, and of what is too long
// the beginning and a check sum.
std::string LaunchRecordName(const std::string& task);

// Makes the folder in the working directory. False, with a line in the log, when that cannot be done.
bool MakeLaunchRecordDirectory();

std::string LaunchRecordPath(const std::string& task, vxsched::TTime due);

// A start that this process has made. It counts as a mark as long as the process lives, whether there
// is a file for it or not.
void RememberLaunch(const TLaunchRecord& mark);

// Throws CError when the folder is there and cannot be read: rather no answer than a start made
// twice.
std::vector<TLaunchRecord> ReadLaunchRecords();
void RemoveLaunchRecord(const TLaunchRecord& mark);

// What the tasks should be for the starts that the table does not show: moved on behind a due time for
// which there is a mark, or gone where they run once. `now` is what starts are moved on to. Returns
// how many tasks were not as they should be.
std::size_t ApplyLaunchRecords(const std::vector<TLaunchRecord>& marks, vxsched::TTime now,
                               std::vector<vxsched::TTaskEntry>& tasks);

// The marks whose start the table shows, or whose task has gone.
std::vector<TLaunchRecord> FindSettled(const std::vector<TLaunchRecord>& marks,
                                       const std::vector<vxsched::TTaskEntry>& tasks);
