#pragma once

// Has files and those of launched programs made for their owner to use, and for nobody else to write.
// What the umask keeps from others besides, it still does. For a process that launches programs,
// before it makes anything.
void RestrictUmask();
