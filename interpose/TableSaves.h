#pragma once

// Interposed file functions that make the add-in's saves of the table atomic; see TableSaves.cpp.

// Sets the function to call when the add-in fails to read its table, on the thread that tried to:
// from then on the add-in's list is stale or empty, and its saves are discarded until a read
// succeeds. The store mutex is held during the call. It must not throw. null: none. Any thread may
// set it.
void SetReadFailureListener(void (*listener)());
