// A host that defines the support library in its own program. It loads the add-in, creates a task
// and reads it back through its own COpen, which encodes numbers in another byte order than the
// support library.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "CEvent.h"
#include "COpen.h"
#include "CPopen.h"
#include "VXC_CRC32.h"
#include "VXC_File.h"
#include "VXC_Information.h"
#include "VXC_Log.h"
#include "addin/CAddInInterface.h"

#define HOST_OWN __attribute__((visibility("default")))

CEvent::CEvent(std::string /*name*/, bool manualReset) : manual(manualReset) {}
CEvent::~CEvent() = default;
int CEvent::Wait(int /*milliseconds*/) {
    const bool result = signalled;
    if (!manual)
        signalled = false;
    return result ? 1 : 0;
}
void CEvent::SetEvent() {
    signalled = true;
}
void CEvent::ResetEvent() {
    signalled = false;
}
int CEvent::WaitSignalOrTimeout(int seconds) {
    return Wait(seconds);
}

COpen::COpen(const char* path, int flags, unsigned int mode) : file(nullptr) {
    const int descriptor = open(path, flags, mode);
    if (descriptor != -1)
        file = fdopen(descriptor, "r+");
}
COpen::~COpen() {
    Close();
}
bool COpen::IsValid() const {
    return file != nullptr;
}
static bool gQuietReads =
    false;  // reads deliver nothing and throw nothing, as at the end of a file
void COpen::Read(void* data, int length) {
    if (gQuietReads)
        return;
    if (std::fread(data, 1, static_cast<std::size_t>(length), file) !=
        static_cast<std::size_t>(length))
        throw std::runtime_error("end of file");
}
void COpen::Write(const void* data, int length) {
    std::fwrite(data, 1, static_cast<std::size_t>(length), file);
}
std::uint32_t COpen::ReadUnsigned() {
    std::uint32_t value = 0;
    Read(&value, sizeof value);
    return __builtin_bswap32(value);
}
void COpen::WriteUnsigned(std::uint32_t value) {
    const std::uint32_t swapped = __builtin_bswap32(value);
    Write(&swapped, sizeof swapped);
}
void COpen::ReadString(std::string& string) {
    string.resize(ReadUnsigned());
    Read(string.data(), static_cast<int>(string.size()));
}
void COpen::WriteString(const std::string& string) {
    WriteUnsigned(static_cast<std::uint32_t>(string.size()));
    Write(string.data(), static_cast<int>(string.size()));
}
void COpen::Close() {
    if (file != nullptr)
        std::fclose(file);
    file = nullptr;
}

CPopen::CPopen(const char* command, const char* mode) : pipe(popen(command, mode)) {}
CPopen::~CPopen() {
    Close();
}
int CPopen::Read(void* buffer, int size) {
    const std::size_t length = std::fread(buffer, 1, static_cast<std::size_t>(size) - 1, pipe);
    static_cast<char*>(buffer)[length] = '\0';
    return static_cast<int>(length);
}
int CPopen::Close() {
    const int status = pipe == nullptr ? -1 : pclose(pipe);
    pipe = nullptr;
    return status;
}

HOST_OWN std::uint32_t VXC_GenerateCRC32(std::string data) {
    return static_cast<std::uint32_t>(data.size()) + 1;
}
HOST_OWN void VXC_File::VXC_StripPathUrl(const char*, char*, char*, char*) {}
HOST_OWN void VXC_SetInformation(std::string, int) {}
HOST_OWN void VXC_LogMessage(std::string) {}

static void Require(bool condition, const char* message) {
    if (condition)
        return;
    std::fprintf(stderr, "own_host: %s\n", message);
    std::exit(1);
}

int main(int argc, char** argv) {
    Require(argc == 2, "usage: own_host ADDIN");
    mkdir("files", 0755);
    void* const library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    Require(library != nullptr, dlerror());
    const auto create =
        reinterpret_cast<void (*)(const char*, const long*, unsigned int, const char*,
                                  const char*)>(dlsym(library, "CreateTask"));
    const auto scheduled =
        reinterpret_cast<bool (*)(const char*)>(dlsym(library, "_Z11IsScheduledPKc"));
    const auto addIn = reinterpret_cast<CAddInInterface* (*)()>(dlsym(library, "CreateAddIn"));
    Require(create != nullptr && scheduled != nullptr && addIn != nullptr,
            "the add-in lacks an entry point");

    const long due = 4'000'000'000;
    create("backup", &due, 24, "/opt/tools/backup", "all");
    Require(scheduled("backup") && !scheduled("restore"), "the task is not in the table");
    Require(addIn()->isLoad(), "the add-in object is not loaded");

    COpen file("files/scheduler.dat", O_RDWR, 0);
    std::uint64_t count = 0;
    file.Read(&count, sizeof count);
    std::string name;
    file.ReadString(name);
    Require(count == 1 && name == "backup", "the file was not written by the host's COpen");

    // The add-in's count is 0 before it is read. A read that delivers nothing therefore gives an
    // empty table, and the add-in must not reset the file.
    truncate("files/scheduler.dat", 0);
    gQuietReads = true;
    Require(!scheduled("backup"), "a task was found although the read delivered nothing");
    struct stat status {};
    Require(stat("files/scheduler.dat", &status) == 0 && status.st_size == 0, "the file was reset");
    dlclose(library);
    return 0;
}
