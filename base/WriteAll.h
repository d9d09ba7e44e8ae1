#pragma once

#include <sys/types.h>

#include <string_view>

// Write all of `bytes`, in as many calls as it takes; interrupted ones are repeated. Block as
// write() and send() do. Return false, with errno, if a call fails: some of the bytes may have been
// written then. Any thread may call them.

bool WriteAll(int descriptor, std::string_view bytes);

// The same to a descriptor that others may have set not to block: waits for its reader.
bool WriteAllInTurn(int descriptor, std::string_view bytes);

// To a file, from `offset` bytes after its begin on; its position stays where it is.
bool WriteAllAt(int descriptor, std::string_view bytes, off_t offset);

// To a socket; raises no SIGPIPE if the other end is closed.
bool SendAll(int socket, std::string_view bytes);
