// The names of a store on disk and in IPC, for everything but the add-in, which has its own. Paths
// are relative to the store's working directory. Other versions of the programs use the same names:
// a changed one makes another store.

#pragma once

namespace vxsched {

inline constexpr char cFilesDirectory[] = "files";

// ---- The table and its replacements

inline constexpr char cTableName[] = "scheduler.dat";  // in the directory of files
inline constexpr char cTableFile[] = "files/scheduler.dat";
// The table as it was before the last change of a client.
inline constexpr char cBackupFile[] = "files/scheduler.dat.before";
// A temporary file is the table's path, one of these and the id of the process that writes it.
inline constexpr char cSaveSuffix[] = ".save-";        // a save: one task was changed, not its name
inline constexpr char cReplacementSuffix[] = ".new-";  // any other
// The name of a quarantined table, in the directory of files, is this and a timestamp.
inline constexpr char cQuarantinePrefix[] = "scheduler.dat.damaged-";

inline constexpr char cSnapshotDirectory[] = "files/snapshots";
inline constexpr char cSnapshotPrefix[] = "scheduler.dat.";  // and a timestamp

// ---- Other files

inline constexpr char cProgramLinksName[] = "programs";
inline constexpr char cProgramLinks[] = "files/programs";
inline constexpr char cHistoryFile[] = "files/history.jsonl";
inline constexpr char cOutputDirectory[] = "files/output";  // and a directory for each task
inline constexpr char cRunningDirectory[] = "files/running";
inline constexpr char cOrphanDirectory[] = "files/orphans";
inline constexpr char cLockFile[] = "files/vxschedd.lock";  // of the host
inline constexpr char cControlSocket[] = "files/control";   // of the host
inline constexpr char cLaunchRecordDirectory[] = "files/started";
inline constexpr char cSettledLaunchDirectory[] = "files/settled";
inline constexpr char cOwedLaunchDirectory[] = "files/owed";
inline constexpr char cHeartbeatFile[] = "files/started/alive";
inline constexpr char cLaunchIntentsFile[] = "files/started/intents";

// What was made from files of tasks: a record for each file, and the next one while it is changed.
inline constexpr char cAppliedDirectory[] = "files/applied";
inline constexpr char cFreshRecordSuffix[] = "%next";  // as no name of a record ends

// ---- The programs that use a store

inline constexpr char cHostProgram[] = "vxschedd";
inline constexpr char cCommandProgram[] = "vxsched";
inline constexpr char cChangeProgram[] = "vxsched-change";
inline constexpr char cRunnerProgram[] = "vxrun";
// In the directory of the libraries.
inline constexpr char cChangeProgramFile[] = "vantrix/vxsched-change";
inline constexpr char cClientLibrary[] = "libvxsched-client.so";  // and its version

// ---- The add-in, and its objects in IPC; their keys are derived from these names

inline constexpr char cAddInFile[] = "libVantrixScheduler.so";
inline constexpr char cStoreMutexName[] = "Global\\1D1F6415-69BD-4438-B706-07D710576930";
// A signal makes the next tick read the table.
inline constexpr char cTaskChangedEventName[] =
    "Global\\schTaskChanged-69BD-4438-B706-07D710576930";
// The worker waits for it between ticks; a signal makes it tick at once.
inline constexpr const char* cStopEventName = cAddInFile;

}  // namespace vxsched
