#include <vxsched/Error.h>

#include <cerrno>
#include <cstring>

#include "store/MakeError.h"

namespace vxsched {

CError SystemError(const std::string& what, int error) {
    const bool isAboutPermissions = error == EACCES || error == EPERM || error == EROFS;
    const char* const advice =
        isAboutPermissions ? "; run as the user, or in the group, of the scheduling process" : "";
    return MakeError(isAboutPermissions ? EError::cNoAccess : EError::cFailed, "{}: {}{}", what,
                     std::strerror(error), advice);
}

}  // namespace vxsched
