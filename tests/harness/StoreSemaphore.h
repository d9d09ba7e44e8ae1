#pragma once

#include <sys/types.h>

// The store mutex's semaphore as the system shows it, by its key. Written down as a number, so that
// a change of the key's making is noticed: processes of different versions share the store.
inline constexpr key_t cStoreKey = static_cast<key_t>(0xBC991DFB);
// Likewise those of the task-changed event and of the stop event.
inline constexpr key_t cTaskChangedKey = 0x177C2B89;
inline constexpr key_t cStopKey = 0x504012A1;

bool StoreSemaphoreExists();
int StoreSemaphoreValue();  // 1 free, 0 held; -1 when there is none
int CountSemaphoreSets();   // in this IPC namespace

// Makes the store mutex as a client of a store without a host has it; the set's identifier.
int MakeStoreMutex();

// A scheduling process rests between two ticks: its worker waits for the stop event.
bool WorkerIsIdle();

// Of a namespace that holds just one set: its identifier and its key.
int TheOnlySet();
key_t KeyOfTheOnlySet();

// Puts something else under the key of the event of that name, a set that is too small to be an
// event, so that the event cannot be made. For a namespace without sets.
void TakeTheKeyOfEvent(const char* name);
