#pragma once

// A function of libsystemd by its name, null when there is no such library, which is logged once. It
// is loaded when the first is asked for: with all that it needs itself, it takes memory that a host
// outside systemd has no use for.
void* FindInSystemd(const char* name);

template <typename Function>
Function* FindInSystemd(const char* name) {
    return reinterpret_cast<Function*>(FindInSystemd(name));
}
