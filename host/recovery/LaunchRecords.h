#pragma once

#include <string>
#include <vector>

#include <vxsched/Table.h>

// Launch records, in files/started/: one file for each task and due time for which a program was
// launched. The program's own process creates it right before it becomes the program, so a launch
// and its record cannot be separated, not even by a kill of the host. The record is removed once
// the table shows the launch.
//
// A record's name is NAME@DUE: the task's name as FileNameOf() encodes it, and the due time in
// seconds since 1970. The file is empty; its modification time is the launch time.

struct TLaunchRecord {
    std::string task;  // as FileNameOf() encodes it
    vxsched::TTime due;
    vxsched::TTime launched;

    bool IsOf(const std::string& name, vxsched::TTime time) const;
};

// Creates files/started in the working directory, if it is missing. False, with a warning in the
// log, when that fails.
bool MakeLaunchRecordDirectory();

std::string LaunchRecordPath(const std::string& task, vxsched::TTime due);

// Remembers a launch of this process. It counts as a record for as long as the process lives,
// whether it has a file or not. Any thread may call it.
void RememberLaunch(const TLaunchRecord& record);

// Returns the records of the working directory and the remembered ones. Throws CError when the
// directory exists and cannot be read: with records missing from the answer, programs would be
// launched twice. Any thread may call it.
std::vector<TLaunchRecord> ReadLaunchRecords();

// Removes the file and forgets the launch. Any thread may call it.
void RemoveLaunchRecord(const TLaunchRecord& record);

// Applies to `tasks` each launch that they do not show yet: the task is rescheduled to the first
// time on its grid that is after the due time and not before `now`, or removed if it runs once.
// Returns how many tasks were changed.
std::size_t ApplyLaunchRecords(const std::vector<TLaunchRecord>& records, vxsched::TTime now,
                               std::vector<vxsched::TTaskEntry>& tasks);

// Returns the records that are no longer needed: the table shows their launch, or their task is
// gone.
std::vector<TLaunchRecord> FindSettled(const std::vector<TLaunchRecord>& records,
                                       const std::vector<vxsched::TTaskEntry>& tasks);
