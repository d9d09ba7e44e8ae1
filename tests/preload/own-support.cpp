// Another support library in a real program (LD_PRELOAD): the dynamic linker finds its COpen before
// that of libvxcsupport. A program that makes its saves in one step refuses to load an add-in then,
// so none of these is ever called.

#include "../embedding/own_support/COpen.h"

#include <cstdlib>

COpen::COpen(const char* /*path*/, int /*flags*/, unsigned int /*mode*/) : file(nullptr) {
    std::abort();
}
COpen::~COpen() {
    std::abort();
}
bool COpen::IsValid() const {
    return file != nullptr;
}
void COpen::Close() {
    std::abort();
}
