// Runs until it is killed, or until whoever started it is gone.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

int main() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;)
        pause();
}
