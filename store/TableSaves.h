#pragma once

#include <string>
#include <string_view>

namespace vxsched {

// Saves of the table in one step, for programs that load the add-in.

// From now on the files/scheduler.dat that a COpen of this process opens to save, by this spelling
// of the path, is a temporary file, which replaces the table when it is closed complete; owner and
// mode stay. The table is then on the disk. Where there can be no such file (the table is a link or
// has several, or its owner cannot be restored) the table is rewritten in place. What is no regular
// file is not opened at all. After a failed read of the table, saves are discarded until a read
// succeeds. To be called before the add-in is loaded; it acts until the process ends. The store
// mutex is held while a COpen has the table open.
void SaveTableInOneStep();

// Takes the result of a check whether `path` exists: 0, or the errno. The add-in makes one before
// it reads its table. If it fails on the table, except with ENOENT, the read has failed. Any thread
// that holds the store mutex.
void NoteFileStatus(const char* path, int error);

// Sets the function to call when a read of the table has failed, with the reason in errno, on the
// thread that tried to: the add-in's list is stale or empty then. The store mutex is held during
// the call. It must not throw. null: none. Any thread may set it.
void SetReadFailureListener(void (*listener)());

// Sets the function to call right before each save, with the store mutex held, on the thread that
// saves. It must not throw. null: none. Any thread may set it.
void SetSaveListener(void (*listener)());

// Whether the add-in's list shows this table, as it was read or saved last. Compares hashes. False if
// that is not known. Any thread may call it.
bool ListShows(std::string_view table);

// Returns why the files of the add-in at `path`, once it is loaded into this process, would not
// come to SaveTableInOneStep(): it is not this process's support library that it opens them with.
// Empty if they would. Loads nothing. A file that cannot be read, or whose name has no directory so
// that the dynamic linker searches for it, is checked only for what every add-in would be bound to.
std::string WhySavesAreNotInOneStep(const std::string& path);

}  // namespace vxsched
