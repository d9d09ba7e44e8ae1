#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

// What a disk may hold after a power failure: all that was flushed to it, and any part of what was
// not.

// A call on a store's files, as tests/preload/file-recorder.cpp records it.
struct TFileCall {
    // With the meaning of `bytes`:
    //   create, mkdir, link, unlink   the path
    //   rename, symlink               two paths, or the path and the target, separated by a line break
    //   write                         what was written at the offset `number`
    //   truncate                      nothing; `number` is the size
    //   flush, flush-directory        nothing
    //   launch                        the task; `number` is the due time
    // A test may add records of its own.
    std::string operation;
    ino_t inode = 0;
    long long number = 0;
    std::string bytes;
};

std::vector<TFileCall> ReadFileCalls(const std::string& path);

// Adds a record of the test's own.
void AddFileCall(const std::string& path, const std::string& operation, const std::string& bytes);

// The directory "files" of a store, as the kernel shows it and as it may be on the disk. A flush of
// a file makes its content durable, a flush of a directory its names. Of what was not flushed, each
// change of a content or of a name may be on the disk or not, whatever the order of the changes; a
// write may be there in part, but eight bytes, such as the count of a table, are there or not. A
// rename is a new name and a removed one.
class CCrashedDisk {
public:
    // What has become of the changes that were not flushed.
    enum EChoice { cNone, cAll, cRandom, cOneLost, cOneKept };

    // `directory` is the store's, everything in it is on the disk.
    explicit CCrashedDisk(const std::string& directory);

    void Apply(const TFileCall& call);

    // Writes the disk's content below `directory`, which does not exist.
    void WriteTo(const std::string& directory, EChoice choice, std::mt19937& random) const;

    // A file, a link or a directory, with the changes that were not flushed; a state of the disk has
    // none.
    struct TObject;
    using TObjectPointer = std::shared_ptr<TObject>;
    struct TChange {
        enum EKind { cWrite, cTruncate, cSetName, cRemoveName } kind;
        std::size_t offset;  // or the size
        std::string bytes;   // or the name
        TObjectPointer object;
    };
    struct TObject {
        bool isDirectory = false;
        std::string target;  // of a symbolic link
        std::string content;
        std::map<std::string, TObjectPointer> names;
        std::vector<TChange> pending;
    };

    // Every state that the disk may be in, without writes that are there in part, each once; empty
    // if there are more than `most`.
    std::vector<TObjectPointer> FindStates(std::size_t most) const;

    // Writes one of these states.
    static void WriteTo(const std::string& directory, const TObject& state);

private:
    class CChoices;

    static std::vector<TObject> FindOwnStates(const TObject& object, std::size_t most);
    static std::vector<TObjectPointer> FindStatesOf(const TObject& object, std::size_t most);

    TObjectPointer Load(const std::string& path);
    void SetName(const std::string& path, const TObjectPointer& object);
    void RemoveName(const std::string& path);
    static void Change(TObject& object, const TChange& change);
    static std::size_t CountPending(const TObject& object);
    static void Write(const TObject& object, const std::string& path, CChoices& choices);

    TObjectPointer root;
    std::map<std::string, TObjectPointer> directories;  // by their paths
    std::map<ino_t, TObjectPointer> files;
};
