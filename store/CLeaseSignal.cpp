#include "store/CLeaseSignal.h"

#include <fcntl.h>
#include <unistd.h>

#include <ctime>

namespace vxsched {

static sigset_t JustSigio() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGIO);
    return set;
}

CLeaseSignal::CLeaseSignal() {
    const sigset_t sigio = JustSigio();
    pthread_sigmask(SIG_BLOCK, &sigio, &formerMask);
}

CLeaseSignal::~CLeaseSignal() {
    const sigset_t sigio = JustSigio();
    const timespec now{};
    while (sigtimedwait(&sigio, nullptr, &now) == SIGIO) {
    }
    pthread_sigmask(SIG_SETMASK, &formerMask, nullptr);
}

// SIGIO goes to this thread instead of the process.
bool CLeaseSignal::IsGranted(int descriptor, int kind) const {
    f_owner_ex owner{.type = F_OWNER_TID, .pid = gettid()};
    return fcntl(descriptor, F_SETOWN_EX, &owner) == 0 && fcntl(descriptor, F_SETLEASE, kind) == 0;
}

}  // namespace vxsched
