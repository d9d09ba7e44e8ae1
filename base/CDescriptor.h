#pragma once

#include <unistd.h>

#include <utility>

// Owns an open file descriptor, or none (-1), and closes it; errors of close() are lost. Movable.
// For one thread at a time.
class CDescriptor {
public:
    explicit CDescriptor(int openDescriptor = -1) : descriptor(openDescriptor) {}
    ~CDescriptor() {
        if (descriptor >= 0)
            close(descriptor);
    }
    CDescriptor(CDescriptor&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
    CDescriptor& operator=(CDescriptor&& other) noexcept {
        std::swap(descriptor, other.descriptor);
        return *this;
    }
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;

    int Get() const { return descriptor; }
    bool IsOpen() const { return descriptor >= 0; }

    // Returns the descriptor, which the caller has to close from now on; -1 if there is none.
    int Release() { return std::exchange(descriptor, -1); }

private:
    int descriptor;
};
