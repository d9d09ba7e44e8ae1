#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>

#include "base/CDescriptor.h"

// Pass a descriptor to another process by a stream socket of the file system's kind, with the first of
// the bytes. Any thread may call them.

// Sends all of `bytes`, as SendAll() does, and with them `passed`, which the caller keeps; -1: none.
bool SendAllWith(int socket, std::string_view bytes, int passed);

// Receives as recv() does, without blocking. A descriptor that comes with the bytes replaces `passed`,
// numbered beyond the standard ones and those that a launched program is given. Returns -1 with EMFILE if
// there is none free for it, or if several have come, which are closed but for one.
ssize_t ReceiveWith(int socket, char* block, std::size_t size, CDescriptor& passed);
