#pragma once

#include <filesystem>
#include <string>

#include "base/CDescriptor.h"

// The client's side of the control socket (docs/control.md). Any thread may call these functions.

namespace vxsched {

// Connects to the host of a directory. Closed if none listens, with the reason in errno. Blocks for eleven
// seconds at most; so does what is sent by it.
CDescriptor ConnectToHost(const std::filesystem::path& directory);

// Reads the host's line, up to its line break, which is left out. Returns an error number: 0, ETIMEDOUT
// after eleven seconds, EPROTO if the host has closed the connection, or that of recv().
int ReceiveAnswer(const CDescriptor& socket, std::string& line);

}  // namespace vxsched
