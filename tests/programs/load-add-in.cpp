// load-add-in STEP ADDIN: loads the add-in in a program that does not set the standard streams up
// itself, as a host in C does not. The steps:
//   keep-line              exits with 0 if the load leaves a line in the buffer of standard output
//   print                  prints with std::cout during the load (what is logged), after the load,
//                          and after the unload
//   catch                  prints what a handler around dlopen catches
//   catch-through-pointer  the same with dlopen called through a pointer that may throw

#include <VXC_Log.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <ostream>
#include <string>

// <iostream> would set the streams up.
namespace std {
extern ostream cout;
}

// Full buffering, as into a pipe. The size of the file shows what was flushed.
static int KeepLine(const char* addIn) {
    if (std::freopen("output", "w", stdout) == nullptr)
        return 2;
    std::printf("a line without its end");
    void* const library = dlopen(addIn, RTLD_NOW | RTLD_LOCAL);
    struct stat status {};
    if (library == nullptr || fstat(STDOUT_FILENO, &status) != 0)
        return 2;
    return status.st_size == 0 ? 0 : 1;
}

static int Print(const char* addIn) {
    VXC_SetLogSink([](const std::string& message, void*) { std::cout << message << '\n'; },
                   nullptr);
    void* const library = dlopen(addIn, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        return 2;
    std::cout << "after the load\n";
    dlclose(library);
    std::cout << "after the unload\n" << std::flush;
    return 0;
}

// The loader is left in the middle of its work, so the process ends without finalisers.
[[noreturn]] static void PrintCaught(const std::exception& caught) {
    std::printf("caught %s", caught.what());
    std::fflush(stdout);
    _exit(0);
}

static int Catch(const char* addIn) {
    try {
        dlopen(addIn, RTLD_NOW | RTLD_LOCAL);
    } catch (const std::exception& caught) {
        PrintCaught(caught);
    }
    return 2;
}

static int CatchThroughPointer(const char* addIn) {
    void* (*volatile load)(const char*, int) = dlopen;
    try {
        load(addIn, RTLD_NOW | RTLD_LOCAL);
    } catch (const std::exception& caught) {
        PrintCaught(caught);
    }
    return 2;
}

int main(int argc, char** argv) {
    const std::string step = argc == 3 ? argv[1] : "";
    if (step == "keep-line")
        return KeepLine(argv[2]);
    if (step == "print")
        return Print(argv[2]);
    if (step == "catch")
        return Catch(argv[2]);
    if (step == "catch-through-pointer")
        return CatchThroughPointer(argv[2]);
    return 2;
}
