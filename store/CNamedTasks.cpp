#include "store/CNamedTasks.h"

#include <algorithm>
#include <utility>

namespace vxsched {

CNamedTasks::CNamedTasks(std::vector<TTaskEntry> listed) {
    tasks.reserve(listed.size());
    indices.reserve(listed.size());
    for (TTaskEntry& task : listed)
        Add(std::move(task));
}

TTaskEntry* CNamedTasks::Find(std::string_view name) {
    const auto found = indices.find(std::string(name));
    return found == indices.end() ? nullptr : &*tasks[found->second.front()];
}

void CNamedTasks::Add(TTaskEntry task) {
    tasks.emplace_back(std::move(task));
    Index(tasks.size() - 1);
}

void CNamedTasks::Index(std::size_t index) {
    std::vector<std::size_t>& ofName = indices[tasks[index]->name];
    ofName.insert(std::upper_bound(ofName.begin(), ofName.end(), index), index);
}

void CNamedTasks::Remove(std::string_view name) {
    const auto found = indices.find(std::string(name));
    tasks[found->second.front()].reset();
    found->second.erase(found->second.begin());
    if (found->second.empty())
        indices.erase(found);
}

void CNamedTasks::Rename(std::string_view name, const std::string& newName) {
    const auto found = indices.find(std::string(name));
    const std::size_t index = found->second.front();
    TTaskEntry renamed = *tasks[index];
    renamed.name = newName;
    Remove(name);
    tasks[index] = std::move(renamed);
    Index(index);
}

std::vector<TTaskEntry> CNamedTasks::Tasks() const {
    std::vector<TTaskEntry> left;
    left.reserve(tasks.size());
    for (const std::optional<TTaskEntry>& task : tasks) {
        if (task)
            left.push_back(*task);
    }
    return left;
}

}  // namespace vxsched
