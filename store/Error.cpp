#include <vxsched/Error.h>

#include <cerrno>
#include <cstring>

namespace vxsched {

CError SystemError(const std::string& what, int error) {
    const bool isAboutPermissions = error == EACCES || error == EPERM || error == EROFS;
    return {
        isAboutPermissions ? EError::cNoAccess : EError::cFailed,
        what + ": " + std::strerror(error) +
            (isAboutPermissions ? "; run as the user, or in the group, of the scheduling process"
                                : "")};
}

}  // namespace vxsched
