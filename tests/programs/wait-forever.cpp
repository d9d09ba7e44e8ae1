// Runs until it is killed, or until its parent exits.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

int main() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;)
        pause();
}
