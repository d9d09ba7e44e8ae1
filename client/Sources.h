#pragma once

#include <filesystem>
#include <optional>

#include "client/Salvage.h"

namespace vxsched {

// The youngest sound table of those that were put aside in a store's directory: the copy from before
// the last change, and the host's snapshots. None when there is none.
std::optional<TSource> FindSource(const std::filesystem::path& directory);

// Keeps the bytes of a damaged table beside it, as files/scheduler.dat.damaged-TIME; where. Of those
// that are there, the youngest two dozen stay. Throws CClientError (cNoAccess, cFailed).
std::filesystem::path PutAside(const std::filesystem::path& directory, std::string_view bytes);

}  // namespace vxsched
