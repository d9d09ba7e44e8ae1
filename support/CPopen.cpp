#include "CPopen.h"

#include <unistd.h>

#include <cerrno>
#include <new>
#include <string>

CPopen::CPopen(const char* command, const char* mode) : pipe(nullptr) {
    try {
        pipe = popen(command, (std::string(mode) + "e").c_str());
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
}

CPopen::~CPopen() {
    Close();
}

bool CPopen::IsValid() const {
    return pipe != nullptr;
}

int CPopen::Read(void* buffer, int size) {
    if (size < 1)
        return 0;
    auto* const text = static_cast<char*>(buffer);
    int length = 0;
    bool failed = pipe == nullptr;
    while (!failed && length < size - 1) {
        const ssize_t count =
            read(fileno(pipe), text + length, static_cast<std::size_t>(size - 1 - length));
        if (count == 0)
            break;
        if (count > 0)
            length += static_cast<int>(count);
        else if (errno != EINTR)
            failed = true;
    }
    text[length] = '\0';
    return failed && length == 0 ? -1 : length;
}

int CPopen::Close() {
    if (pipe == nullptr)
        return -1;
    const int status = pclose(pipe);
    pipe = nullptr;
    return status;
}
