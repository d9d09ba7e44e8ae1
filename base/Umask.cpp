#include "base/Umask.h"

#include <sys/stat.h>

void RestrictUmask() {
    const mode_t former = umask(S_IWGRP | S_IWOTH);
    // One that takes from the owner as well is a mistake, or nobody's choice.
    if ((former & S_IRWXU) == 0)
        umask(former | S_IWGRP | S_IWOTH);
}
