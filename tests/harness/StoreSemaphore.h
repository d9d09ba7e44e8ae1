#pragma once

#include <sys/types.h>

// The key of the store mutex's semaphore. A literal, so that a test fails when the key's derivation
// changes: processes of different versions share the store.
inline constexpr key_t cStoreKey = static_cast<key_t>(0xBC991DFB);
// Likewise the keys of the task-changed event and of the stop event.
inline constexpr key_t cTaskChangedKey = 0x177C2B89;
inline constexpr key_t cStopKey = 0x504012A1;

bool StoreSemaphoreExists();
int StoreSemaphoreValue();  // 1 free, 0 held; -1 when there is none
int CountSemaphoreSets();   // in this IPC namespace

// Creates the store mutex as a client of a store without a host does. Returns the set's identifier.
int MakeStoreMutex();

// Whether a scheduling process is idle between two ticks: its worker waits for the stop event.
bool WorkerIsIdle();

// The identifier and the key of the only set in this namespace.
int TheOnlySet();
key_t KeyOfTheOnlySet();

// Creates a set that is too small for an event under the key of the event of that name, so that the
// event cannot be created. For a namespace without sets.
void TakeTheKeyOfEvent(const char* name);
