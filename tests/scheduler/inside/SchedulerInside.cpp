// The scheduler's source with a few file-local functions exported, as a library that tests load in
// a namespace and directory of their own.

#include "scheduler/Scheduler.cpp"

#define INSIDE extern "C" __attribute__((visibility("default")))

INSIDE bool InsideLoadTasks() {
    return LoadTasks();
}
INSIDE void InsideSaveTasks() {
    SaveTasks();
}
INSIDE void InsideClearTasks() {
    ClearTasks();
}
INSIDE void InsideRemoveTask(const char* name) {
    RemoveTask(name);
}
INSIDE TTask* InsideFindTask(const char* name) {
    const TPosition position = FindTask(name);
    return position == gTaskList->end() ? nullptr : *position;
}
INSIDE void InsideSetNextTime(TTask* task, bool save) {
    SetNextTime(task, save);
}
INSIDE void InsideExecute(TTask*& task) {
    Execute(task);
}
INSIDE std::list<TTask*>* InsideTaskList() {
    return gTaskList;
}
INSIDE CMutex* InsideMutex() {
    return gMutex;
}
INSIDE CEvent* InsideTaskChangedEvent() {
    return gTaskChangedEvent;
}
INSIDE pthread_t InsideSchedulerThread() {
    return gSchedulerThread;
}
INSIDE CSchedulerAddin* InsideInstance() {
    return gInstance;
}
INSIDE CSchedulerAddin* InsideNewAddin() {
    return new CSchedulerAddin;
}
INSIDE time_t InsideSecondsOfPeriod(std::uint32_t period) {
    return SecondsOfPeriod(period);
}
