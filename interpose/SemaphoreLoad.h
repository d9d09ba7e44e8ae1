#pragma once

// An interposed semctl(), for the load of the add-in, which sets the store mutex free whoever holds
// it. A program takes the mutex before it loads the add-in, so that the load ends no other
// process's hold; but a direct client's load may have set it free meanwhile, and then somebody else
// may hold it.

// The next time that this process sets the value of `set` to 1, as the load does, the set is
// released instead, and only if this process still holds it; a value that lets several in is set all
// the same. -1: none. Any thread may call it.
void ReleaseAtLoad(int set);
