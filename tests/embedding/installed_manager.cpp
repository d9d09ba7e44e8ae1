// Manages tasks through the client library; compiled against the installed package only.

#include <vxsched/Error.h>
#include <vxsched/Repair.h>
#include <vxsched/RunningPrograms.h>
#include <vxsched/SchedulingProcess.h>
#include <vxsched/Store.h>

#include <cstdio>

using namespace std::chrono_literals;

int main() {
    const vxsched::CStore store({.lockTimeout = 5s});
    store.Create({"manager", vxsched::Now() + 1h, 24, "/bin/true", "a parameter"}, false);
    store.Pause({"manager"});
    const vxsched::TTaskEntry* const task = store.Read().Find("manager");
    if (vxsched::FindSchedulingProcess(".").has_value() || task == nullptr) {
        std::fprintf(stderr, "installed_manager: the task is not in the table\n");
        return 1;
    }
    try {
        store.Remove({"unknown"});
        return 1;
    } catch (const vxsched::CError& error) {
        return error.Code() == vxsched::EError::cNotFound ? 0 : 1;
    }
}
