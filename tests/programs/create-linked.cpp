// Has the client library create a task whose program is launched through a link in files/programs/:
// create-linked DIRECTORY NAME PROGRAM

#include <chrono>
#include <cstdio>

#include <vxsched/Error.h>
#include <vxsched/Store.h>

int main(int /*argc*/, char** argv) {
    try {
        const vxsched::CStore store({.directory = argv[1]});
        store.Create({argv[2], vxsched::Now() + std::chrono::hours(2), 0, argv[3], ""}, false);
        return 0;
    } catch (const vxsched::CError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
