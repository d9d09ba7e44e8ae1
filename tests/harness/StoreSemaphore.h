#pragma once

#include <sys/types.h>

// The store mutex's semaphore as the system shows it, by its key. Written down as a number, so that
// a change of the key's making is noticed: processes of different versions share the store.
inline constexpr key_t cStoreKey = static_cast<key_t>(0xBC991DFB);

bool StoreSemaphoreExists();
int StoreSemaphoreValue();  // 1 free, 0 held; -1 when there is none
int CountSemaphoreSets();   // in this IPC namespace
