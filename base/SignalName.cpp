#include "base/SignalName.h"

#include <cstring>

std::string SignalName(int number) {
    const char* const name = sigabbrev_np(number);
    return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(number);
}
