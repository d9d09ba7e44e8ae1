#pragma once

#include <optional>
#include <string>

namespace vxsched {

// Returns a file name for a task, different for each task, without a slash or a '@'. Characters
// other than letters, digits, '-', '_' and inner '.' are percent-encoded; a name of more than 200
// bytes is cut and ends with a checksum. The empty name becomes "%". Callers may add 42 bytes.
std::string FileNameOf(const std::string& task);

// The same, or "%unknown", as which no task's name is encoded, for a launch whose task is unknown.
std::string FileNameOrUnknown(const std::optional<std::string>& task);

}  // namespace vxsched
