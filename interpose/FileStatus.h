#pragma once

// An interposed stat(). The add-in's calls of it come here, on whichever thread makes them, and so
// do the program's own.

// Sets the function to call after every call of stat() with its path and 0, or the errno of its
// failure, on the calling thread. It must not throw, nor call stat(). null: none. Any thread may
// set it.
void SetFileStatusListener(void (*listener)(const char* path, int error));
