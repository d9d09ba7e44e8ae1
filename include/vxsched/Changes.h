#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <vxsched/Public.h>
#include <vxsched/Store.h>

namespace vxsched {

class CPlan;

// Changes of any number of tasks that are made as one: all of them or, if one cannot be made, none.
// The functions only note a change; Commit() makes those that were noted, each on what the ones before
// it have left, so that a task may be created and then paused. What each of them does, and how it is
// refused, is as stated at the function of CStore.
//
// Any number of changes take one turn of the locks, one read and one save of the table: about as long
// as one. For one thread. Holds neither locks nor files; what was not committed is forgotten.
class VXSCHED_PUBLIC CChanges {
public:
    explicit CChanges(TStoreOptions storeOptions);

    void Create(TNewTask task, bool replace, TForced forced = {});
    void Edit(std::string name, TEdit edit, TForced forced = {});
    // A name that is given twice counts once.
    void Remove(const std::vector<std::string>& names);
    void Pause(const std::vector<std::string>& names);
    void Resume(const std::vector<std::string>& names, const TForced& forced = {});
    void SetPeriod(std::string name, std::uint32_t hours, TForced forced = {});

    // Makes the changes that were noted, by the rules of CStore, and forgets them; without any it does
    // nothing. Returns the tasks that they have left, in the order in which they were first noted,
    // without those that were removed; one that was launched and removed meanwhile is as the changes
    // have left it. Throws CError as CStore does; the changes stay noted then, and another Commit() may
    // succeed.
    std::vector<TTaskEntry> Commit();

    // Returns what Commit() would return now, without a change. Throws what it would throw.
    std::vector<TTaskEntry> Check();

private:
    void ForEach(const std::vector<std::string>& names,
                 const std::function<void(const std::string&)>& note);

    TStoreOptions options;
    // Each adds its calls to a plan of the change, which is made anew if a task changes meanwhile.
    std::vector<std::function<void(CPlan&)>> steps;
};

}  // namespace vxsched
