#include "CrashedDisk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "Process.h"

namespace fs = std::filesystem;

static constexpr std::size_t cUnit = 8;  // what is written at once or not at all

std::vector<TFileCall> ReadFileCalls(const std::string& path) {
    std::vector<TFileCall> calls;
    std::ifstream file(path, std::ios::binary);
    for (std::string line; std::getline(file, line);) {
        TFileCall call;
        std::size_t size = 0;
        std::istringstream(line) >> call.operation >> call.inode >> call.number >> size;
        call.bytes.resize(size);
        file.read(call.bytes.data(), static_cast<std::streamsize>(size));
        calls.push_back(std::move(call));
    }
    return calls;
}

void AddFileCall(const std::string& path, const std::string& operation, const std::string& bytes) {
    const std::string record = operation + " 0 0 " + std::to_string(bytes.size()) + '\n' + bytes;
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (write(file, record.data(), record.size()) != static_cast<ssize_t>(record.size()))
        std::abort();
    close(file);
}

// ---- What is done ------------------------------------------------------------------------------

CCrashedDisk::CCrashedDisk(const std::string& directory) : root(std::make_shared<TObject>()) {
    root->isDirectory = true;
    directories[""] = root;
    const fs::path former = fs::current_path();
    fs::current_path(directory);
    root->names["files"] = Load("files");
    fs::current_path(former);
}

CCrashedDisk::TObjectPointer CCrashedDisk::Load(const std::string& path) {
    auto object = std::make_shared<TObject>();
    struct stat status {};
    lstat(path.c_str(), &status);
    if (S_ISDIR(status.st_mode)) {
        object->isDirectory = true;
        directories[path] = object;
        for (const auto& entry : fs::directory_iterator(path))
            object->names[entry.path().filename()] = Load(entry.path());
    } else if (S_ISLNK(status.st_mode)) {
        object->target = fs::read_symlink(path);
        files[status.st_ino] = object;
    } else {
        object->content = ReadFile(path);
        files[status.st_ino] = object;
    }
    return object;
}

void CCrashedDisk::SetName(const std::string& path, const TObjectPointer& object) {
    const fs::path split(path);
    directories.at(split.parent_path())
        ->pending.push_back({TChange::cSetName, 0, split.filename(), object});
}

void CCrashedDisk::RemoveName(const std::string& path) {
    const fs::path split(path);
    directories.at(split.parent_path())
        ->pending.push_back({TChange::cRemoveName, 0, split.filename(), nullptr});
}

void CCrashedDisk::Apply(const TFileCall& call) {
    const std::string& operation = call.operation;
    const std::string first = call.bytes.substr(0, call.bytes.find('\n'));
    const auto number = static_cast<std::size_t>(call.number);
    if (operation == "create" || operation == "mkdir" || operation == "symlink") {
        auto object = std::make_shared<TObject>();
        object->isDirectory = operation == "mkdir";
        if (object->isDirectory)
            directories[first] = object;
        if (operation == "symlink")
            object->target = call.bytes.substr(first.size() + 1);
        files[call.inode] = object;
        SetName(first, object);
    } else if (operation == "link") {
        SetName(first, files.at(call.inode));
    } else if (operation == "rename") {
        SetName(call.bytes.substr(first.size() + 1), files.at(call.inode));
        RemoveName(first);
    } else if (operation == "unlink") {
        RemoveName(first);
    } else if (operation == "write") {
        files.at(call.inode)->pending.push_back({TChange::cWrite, number, call.bytes, nullptr});
    } else if (operation == "truncate") {
        files.at(call.inode)->pending.push_back({TChange::cTruncate, number, "", nullptr});
    } else if (operation == "flush" || operation == "flush-directory") {
        TObject& object =
            operation == "flush" ? *files.at(call.inode) : *directories.at(call.bytes);
        for (const TChange& change : object.pending)
            Change(object, change);
        object.pending.clear();
    }
}

void CCrashedDisk::Change(TObject& object, const TChange& change) {
    switch (change.kind) {
        case TChange::cWrite:
            if (object.content.size() < change.offset + change.bytes.size())
                object.content.resize(change.offset + change.bytes.size());
            object.content.replace(change.offset, change.bytes.size(), change.bytes);
            break;
        case TChange::cTruncate:
            object.content.resize(change.offset);
            break;
        case TChange::cSetName:
            object.names[change.bytes] = change.object;
            break;
        case TChange::cRemoveName:
            object.names.erase(change.bytes);
            break;
    }
}

// ---- What is there after a power failure -------------------------------------------------------

// Decides about one change after the other.
class CCrashedDisk::CChoices {
public:
    CChoices(EChoice choiceOfAll, std::size_t changes, std::mt19937& randomBits)
        : choice(choiceOfAll), odd(changes > 0 ? randomBits() % changes : 0), random(randomBits) {}

    bool IsKept() {
        const bool isOdd = next++ == odd;
        switch (choice) {
            case cNone:
                return false;
            case cAll:
                return true;
            case cRandom:
                return Throw();
            case cOneLost:
                return !isOdd;
            case cOneKept:
                break;
        }
        return isOdd;
    }

    bool IsTorn() { return choice == cRandom && Throw(); }
    bool IsSizeKept() { return choice != cNone && choice != cAll && Throw(); }
    bool Throw() { return random() % 2 == 0; }

private:
    const EChoice choice;
    const std::size_t odd;
    std::mt19937& random;
    std::size_t next = 0;
};

// Objects that have no name on the disk do not count; one choice too many does no harm.
std::size_t CCrashedDisk::CountPending(const TObject& object) {
    std::size_t count = object.pending.size();
    for (const auto& [name, below] : object.names)
        count += CountPending(*below);
    for (const TChange& change : object.pending)
        count += change.object ? CountPending(*change.object) : 0;
    return count;
}

void CCrashedDisk::Write(const TObject& object, const std::string& path, CChoices& choices) {
    TObject state = object;
    for (const TChange& change : object.pending) {
        const bool isWrite = change.kind == TChange::cWrite;
        if (isWrite && choices.IsTorn()) {
            for (std::size_t offset = 0; offset < change.bytes.size(); offset += cUnit) {
                if (choices.Throw())
                    Change(state, {TChange::cWrite, change.offset + offset,
                                   change.bytes.substr(offset, cUnit), nullptr});
            }
        } else if (choices.IsKept()) {
            Change(state, change);
            continue;
        }
        // The size may be on the disk without the bytes.
        const std::size_t end = change.offset + change.bytes.size();
        if (isWrite && state.content.size() < end && choices.IsSizeKept())
            state.content.resize(end);
    }
    if (!state.target.empty()) {
        fs::create_symlink(state.target, path);
    } else if (!state.isDirectory) {
        WriteFile(path, state.content);
    } else {
        fs::create_directory(path);
        for (const auto& [name, below] : state.names)
            Write(*below, std::string(path).append(1, '/').append(name), choices);
    }
}

void CCrashedDisk::WriteTo(const std::string& directory, EChoice choice,
                           std::mt19937& random) const {
    CChoices choices(choice, CountPending(*root), random);
    Write(*root, directory, choices);
}

// ---- Every state -------------------------------------------------------------------------------

// The states of the object itself: of its content, or of its names, which lead to objects that may
// have changes of their own. Changes that overwrite each other leave few different ones.
std::vector<CCrashedDisk::TObject> CCrashedDisk::FindOwnStates(const TObject& object,
                                                               std::size_t most) {
    TObject initial = object;
    initial.pending.clear();
    std::vector<TObject> states = {initial};
    const auto add = [&](const TObject& state) {
        const bool isKnown = std::any_of(states.begin(), states.end(), [&](const TObject& known) {
            return known.content == state.content && known.names == state.names;
        });
        if (!isKnown)
            states.push_back(state);
    };
    for (const TChange& change : object.pending) {
        const std::size_t count = states.size();
        for (std::size_t index = 0; index < count && states.size() <= most; ++index) {
            TObject state = states[index];
            // The size may be on the disk without the bytes.
            const std::size_t end = change.offset + change.bytes.size();
            if (change.kind == TChange::cWrite && state.content.size() < end) {
                state.content.resize(end);
                add(state);
                state = states[index];
            }
            Change(state, change);
            add(state);
        }
    }
    return states;
}

// Empty if there are more than `most`.
std::vector<CCrashedDisk::TObjectPointer> CCrashedDisk::FindStatesOf(const TObject& object,
                                                                     std::size_t most) {
    std::vector<TObjectPointer> all;
    for (const TObject& own : FindOwnStates(object, most)) {
        // The states in which the names so far lead to a state of their objects.
        std::vector<TObject> states = {own};
        for (const auto& [name, below] : own.names) {
            const std::vector<TObjectPointer> choices = FindStatesOf(*below, most);
            if (choices.empty() || states.size() * choices.size() > most)
                return {};
            std::vector<TObject> longer;
            for (const TObject& state : states) {
                for (const TObjectPointer& choice : choices) {
                    longer.push_back(state);
                    longer.back().names[name] = choice;
                }
            }
            states = std::move(longer);
        }
        if (all.size() + states.size() > most)
            return {};
        for (TObject& state : states)
            all.push_back(std::make_shared<TObject>(std::move(state)));
    }
    return all;
}

std::vector<CCrashedDisk::TObjectPointer> CCrashedDisk::FindStates(std::size_t most) const {
    return FindStatesOf(*root, most);
}

void CCrashedDisk::WriteTo(const std::string& directory, const TObject& state) {
    std::mt19937 unused;
    CChoices choices(cAll, 0, unused);
    Write(state, directory, choices);
}
