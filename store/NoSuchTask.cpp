#include "store/NoSuchTask.h"

#include <vector>

#include "base/FindNearest.h"
#include "store/MakeError.h"

namespace vxsched {

CError NoSuchTask(std::string_view name, const TTable& table, std::string_view advice) {
    std::vector<std::string_view> names;
    for (const TTaskEntry& task : table.tasks)
        names.emplace_back(task.name);
    const std::string_view nearest = FindNearest(name, names);
    if (!nearest.empty())
        return MakeError(EError::cNotFound, "there is no task \"{}\"; did you mean \"{}\"?", name,
                         nearest);
    return MakeError(EError::cNotFound, "there is no task \"{}\"; {}", name, advice);
}

}  // namespace vxsched
