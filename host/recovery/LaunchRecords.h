#pragma once

#include <optional>
#include <string>
#include <vector>

#include <vxsched/Table.h>

// Launch records, in files/started/: one file for each task and due time for which a program was
// launched. The program's own process creates it right before it becomes the program, so a launch
// and its record cannot be separated, not even by a kill of the host.
//
// Once the table shows the launch, the record is settled: it moves to files/settled/ and is removed
// at a check of the table a minute later. Until then it keeps a due time from being launched twice
// that a direct client brings back: one that has read the table before the tick and saves it
// afterwards, since its load or another's has set the store mutex free.
//
// A record's name is NAME@DUE@FORMER: the task's name as FileNameOf() encodes it, without an '@',
// the due time, and the task's last start before this one, in seconds since 1970; without @FORMER
// if that is not known. The file is empty; its modification time is the launch time.

struct TLaunchedProgram {
    std::string program;
    std::string parameter;

    // Whether a task launches it. A program is launched with strings that end with their first zero
    // bytes.
    bool IsOf(const vxsched::TTaskEntry& task) const;
};

struct TLaunchRecord {
    std::string task;  // as FileNameOf() encodes it
    vxsched::TTime due;
    vxsched::TTime launched;
    std::optional<vxsched::TTime> formerStart = std::nullopt;
    bool isSettled = false;
    // Of an owed launch, which has no record of its own. It is none of a task that has got another
    // program since: that is due itself if a command gives it the same due time.
    std::optional<TLaunchedProgram> owed = std::nullopt;

    bool IsOf(const std::string& name, vxsched::TTime time) const;

    // Whether the program was launched for the due time that the task has. Once the launch is
    // settled, a task without it shows the former start, or an earlier one than this; one that a
    // command makes due again shows this one. A task that runs once shows no such difference to one
    // that was created anew.
    bool IsLaunchOf(const vxsched::TTaskEntry& task) const;
};

// Creates files/started in the working directory, if it is missing. False, with a warning in the
// log, when that fails.
bool MakeLaunchRecordDirectory();

std::string LaunchRecordPath(const TLaunchRecord& record);

// Remembers a launch of this process. It counts as a record for as long as the process lives,
// whether it has a file or not. Any thread may call it.
void RememberLaunch(const TLaunchRecord& record);

// Returns the records of the working directory and the remembered ones, without the settled ones.
// Throws CError when the directory exists and cannot be read: with records missing from the answer,
// programs would be launched twice. Any thread may call it.
std::vector<TLaunchRecord> ReadLaunchRecords();

// Returns the launches that were settled within the last minute and that no client has made due
// again. Any thread may call it.
std::vector<TLaunchRecord> RecentLaunches();

// Returns the settled records that a former host has left and remembers them for a minute from now.
// To be called once, at the startup. Those that cannot be read are left out.
std::vector<TLaunchRecord> TakeOverSettledLaunches();

// Settles the launches and removes those that were settled more than a minute ago. A record that
// cannot be moved is removed, and remembered by this process only. Any thread may call it.
void SettleLaunches(const std::vector<TLaunchRecord>& records);

// Returns the remembered launch that was made for the due time of a task that repeats, as
// IsLaunchOf() has it for a settled one: one that is not settled yet, or was within the last minute.
// An owed launch is none. Any thread may call it.
std::optional<TLaunchRecord> FindRecentLaunch(const vxsched::TTaskEntry& task);

// Applies to `tasks` each launch that they do not show: the task is rescheduled to the first time of
// its schedule that is after the due time and not before `now`, or removed if it runs once or is over. Returns how
// many tasks were changed.
std::size_t ApplyLaunchRecords(const std::vector<TLaunchRecord>& records, vxsched::TTime now,
                               std::vector<vxsched::TTaskEntry>& tasks);

// Returns the records to settle: the table shows their launch, or their task is gone.
std::vector<TLaunchRecord> FindSettled(const std::vector<TLaunchRecord>& records,
                                       const std::vector<vxsched::TTaskEntry>& tasks);
