// Records what a real program does to the files of a store, below "files" in the working directory
// (LD_PRELOAD): each change of a file or a directory, each flush to the disk and each launch of a
// task's program, appended to the file that the environment variable RECORD_CALLS holds. Calls of
// several processes are recorded in the order in which they were made. FAKE_BOOT_ID holds the path
// of a file that is read in place of the id of this boot.
//
// A record is a line "OPERATION INODE NUMBER SIZE" and SIZE bytes; tests/harness/CrashedDisk.h
// has the operations. What posix_spawn() lets the new process create and truncate is found by
// comparing the directories before and after.
//
// The symbols below are called by the program, its libraries and the add-in, on whichever thread.
// Each returns what the next definition returns, with its errno.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>

namespace {

template <typename Function>
Function* NextDefinition(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

constexpr char cStarted[] = "files/started";
constexpr char cOwed[] = "files/owed";

// The path relative to the working directory; "" if it is not "files" nor below.
std::string InStore(std::string path) {
    char directory[4096];
    if (getcwd(directory, sizeof directory) != nullptr && path.starts_with(directory))
        path.erase(0, std::strlen(directory) + 1);
    while (path.starts_with("./"))
        path.erase(0, 2);
    return path == "files" || path.starts_with("files/") ? path : "";
}

std::string InStore(int descriptor) {
    char path[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t size = readlink(link.c_str(), path, sizeof path);
    return size > 0 ? InStore(std::string(path, static_cast<std::size_t>(size))) : "";
}

// The path of `name` in an open directory.
std::string InStore(int directory, const std::string& name) {
    const std::string path = InStore(directory);
    return path.empty() ? "" : path + '/' + name;
}

struct stat StatusOf(const std::string& path) {
    struct stat status {};
    lstat(path.c_str(), &status);
    return status;
}

struct stat StatusOf(int descriptor) {
    struct stat status {};
    fstat(descriptor, &status);
    return status;
}

// While an object exists, no other thread and no other process makes a recorded call. The errno at
// its end is the one that the caller of the function gets.
class CRecording {
public:
    CRecording() : lock(Mutex()) {
        const char* const path = std::getenv("RECORD_CALLS");
        static auto* const system = NextDefinition<int(const char*, int, ...)>("open");
        if (path != nullptr)
            log = system(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (log != -1)
            flock(log, LOCK_EX);
    }
    ~CRecording() {
        const int error = errno;
        static auto* const system = NextDefinition<int(int)>("close");
        if (log != -1)
            system(log);
        errno = error;
    }
    CRecording(const CRecording&) = delete;
    CRecording& operator=(const CRecording&) = delete;

    void Add(const char* operation, ino_t inode, long long number, const std::string& bytes) const {
        static auto* const system = NextDefinition<ssize_t(int, const void*, size_t)>("write");
        const int error = errno;
        const std::string record = std::string(operation) + ' ' + std::to_string(inode) + ' ' +
                                   std::to_string(number) + ' ' + std::to_string(bytes.size()) +
                                   '\n' + bytes;
        if (log != -1 && system(log, record.data(), record.size()) == -1)
            std::abort();
        errno = error;
    }

private:
    static std::mutex& Mutex() {
        static std::mutex mutex;
        return mutex;
    }

    const std::lock_guard<std::mutex> lock;
    int log = -1;
};

// Paths of what is in a directory.
std::set<std::string> PathsIn(const std::string& path) {
    std::set<std::string> paths;
    if (DIR* const directory = opendir(path.c_str())) {
        while (const dirent* const entry = readdir(directory))
            paths.insert(path + '/' + entry->d_name);
        closedir(directory);
    }
    return paths;
}

// Those of the owed launches that are not yet made.
std::set<std::string> OwedLaunches() {
    std::set<std::string> paths = PathsIn(cOwed);
    std::erase_if(paths, [](const std::string& path) { return StatusOf(path).st_size == 0; });
    return paths;
}

std::string ValueOf(char* const environment[], const std::string& name) {
    for (; environment != nullptr && *environment != nullptr; ++environment) {
        if (std::string(*environment).starts_with(name + '='))
            return *environment + name.size() + 1;
    }
    return "";
}

}  // namespace

extern "C" int openat(int directory, const char* path, int flags, ...) {
    static auto* const system = NextDefinition<int(int, const char*, int, ...)>("openat");
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const char* const bootId = std::getenv("FAKE_BOOT_ID");
    if (bootId != nullptr && std::strcmp(path, "/proc/sys/kernel/random/boot_id") == 0)
        path = bootId;
    const std::string relative = directory == AT_FDCWD ? InStore(path) : InStore(directory, path);
    if (relative.empty() || (flags & (O_CREAT | O_TRUNC)) == 0)
        return system(directory, path, flags, mode);
    const CRecording recording;
    const bool isNew = StatusOf(relative).st_mode == 0;
    const int descriptor = system(directory, path, flags, mode);
    if (descriptor == -1)
        return -1;
    const ino_t inode = StatusOf(descriptor).st_ino;
    if (isNew)
        recording.Add("create", inode, 0, relative);
    else if ((flags & O_TRUNC) != 0)
        recording.Add("truncate", inode, 0, "");
    return descriptor;
}

extern "C" ssize_t write(int descriptor, const void* bytes, size_t size) {
    static auto* const system = NextDefinition<ssize_t(int, const void*, size_t)>("write");
    if (InStore(descriptor).empty())
        return system(descriptor, bytes, size);
    const CRecording recording;
    const struct stat status = StatusOf(descriptor);
    const off_t offset = (fcntl(descriptor, F_GETFL) & O_APPEND) != 0
                             ? status.st_size
                             : lseek(descriptor, 0, SEEK_CUR);
    const ssize_t count = system(descriptor, bytes, size);
    if (count > 0)
        recording.Add("write", status.st_ino, offset,
                      {static_cast<const char*>(bytes), static_cast<std::size_t>(count)});
    return count;
}

extern "C" ssize_t pwrite(int descriptor, const void* bytes, size_t size, off_t offset) {
    static auto* const system = NextDefinition<ssize_t(int, const void*, size_t, off_t)>("pwrite");
    if (InStore(descriptor).empty())
        return system(descriptor, bytes, size, offset);
    const CRecording recording;
    const ssize_t count = system(descriptor, bytes, size, offset);
    if (count > 0)
        recording.Add("write", StatusOf(descriptor).st_ino, offset,
                      {static_cast<const char*>(bytes), static_cast<std::size_t>(count)});
    return count;
}

extern "C" int ftruncate(int descriptor, off_t size) noexcept {
    static auto* const system = NextDefinition<int(int, off_t)>("ftruncate");
    if (InStore(descriptor).empty())
        return system(descriptor, size);
    const CRecording recording;
    const int result = system(descriptor, size);
    if (result == 0)
        recording.Add("truncate", StatusOf(descriptor).st_ino, size, "");
    return result;
}

static int Flush(int (*system)(int), int descriptor) {
    const std::string path = InStore(descriptor);
    if (path.empty())
        return system(descriptor);
    const CRecording recording;
    const int result = system(descriptor);
    const struct stat status = StatusOf(descriptor);
    if (result == 0 && S_ISDIR(status.st_mode))
        recording.Add("flush-directory", status.st_ino, 0, path);
    else if (result == 0)
        recording.Add("flush", status.st_ino, 0, "");
    return result;
}

extern "C" int fsync(int descriptor) {
    static auto* const system = NextDefinition<int(int)>("fsync");
    return Flush(system, descriptor);
}

extern "C" int fdatasync(int descriptor) {
    static auto* const system = NextDefinition<int(int)>("fdatasync");
    return Flush(system, descriptor);
}

extern "C" int rename(const char* from, const char* to) noexcept {
    static auto* const system = NextDefinition<int(const char*, const char*)>("rename");
    const CRecording recording;
    const int result = system(from, to);
    if (result == 0 && !InStore(to).empty())
        recording.Add("rename", StatusOf(to).st_ino, 0, InStore(from) + '\n' + InStore(to));
    return result;
}

extern "C" int link(const char* from, const char* to) noexcept {
    static auto* const system = NextDefinition<int(const char*, const char*)>("link");
    const CRecording recording;
    const int result = system(from, to);
    if (result == 0 && !InStore(to).empty())
        recording.Add("link", StatusOf(to).st_ino, 0, InStore(to));
    return result;
}

extern "C" int symlink(const char* target, const char* path) noexcept {
    static auto* const system = NextDefinition<int(const char*, const char*)>("symlink");
    const CRecording recording;
    const int result = system(target, path);
    if (result == 0 && !InStore(path).empty())
        recording.Add("symlink", StatusOf(path).st_ino, 0, InStore(path) + '\n' + target);
    return result;
}

static int Remove(int (*system)(const char*), const char* path) {
    const CRecording recording;
    const int result = system(path);
    if (result == 0 && !InStore(path).empty())
        recording.Add("unlink", 0, 0, InStore(path));
    return result;
}

extern "C" int unlink(const char* path) noexcept {
    static auto* const system = NextDefinition<int(const char*)>("unlink");
    return Remove(system, path);
}

extern "C" int remove(const char* path) noexcept {
    static auto* const system = NextDefinition<int(const char*)>("remove");
    return Remove(system, path);
}

extern "C" int mkdir(const char* path, mode_t mode) noexcept {
    static auto* const system = NextDefinition<int(const char*, mode_t)>("mkdir");
    const CRecording recording;
    const int result = system(path, mode);
    if (result == 0 && !InStore(path).empty())
        recording.Add("mkdir", StatusOf(path).st_ino, 0, InStore(path));
    return result;
}

extern "C" int posix_spawn(pid_t* process, const char* path,
                           const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[]) {
    static auto* const system =
        NextDefinition<int(pid_t*, const char*, const posix_spawn_file_actions_t*,
                           const posix_spawnattr_t*, char* const*, char* const*)>("posix_spawn");
    const std::string due = ValueOf(environment, "VXSCHED_DUE");
    // The host launches a runner. What that launches is the same launch.
    if (due.empty() || ValueOf(environment, "VXSCHED_RUN").empty())
        return system(process, path, actions, attributes, arguments, environment);
    const CRecording recording;
    const std::set<std::string> recordsBefore = PathsIn(cStarted);
    const std::set<std::string> owedBefore = OwedLaunches();
    const int result = system(process, path, actions, attributes, arguments, environment);
    for (const std::string& created : PathsIn(cStarted)) {
        if (!recordsBefore.contains(created))
            recording.Add("create", StatusOf(created).st_ino, 0, created);
    }
    const std::set<std::string> owed = OwedLaunches();
    for (const std::string& emptied : owedBefore) {
        if (!owed.contains(emptied))
            recording.Add("truncate", StatusOf(emptied).st_ino, 0, "");
    }
    if (result == 0)
        recording.Add("launch", 0, std::atoll(due.c_str()), ValueOf(environment, "VXSCHED_TASK"));
    return result;
}
