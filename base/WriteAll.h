#pragma once

#include <string_view>

// Write all of `bytes`, in as many calls as it takes; interrupted ones are repeated. Block as
// write() and send() do. Return false, with errno, if a call fails: some of the bytes may have been
// written then. Any thread may call them.

bool WriteAll(int descriptor, std::string_view bytes);

// To a socket; raises no SIGPIPE if the other end is closed.
bool SendAll(int socket, std::string_view bytes);
