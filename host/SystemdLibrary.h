#pragma once

// Returns a function of libsystemd by its name; null when the library or the function is missing. A
// missing library is logged once. The library is loaded at the first call: with its dependencies it
// takes memory that a host outside systemd has no use for. It stays loaded. Any thread may call it.
void* FindInSystemd(const char* name);

template <typename Function>
Function* FindInSystemd(const char* name) {
    return reinterpret_cast<Function*>(FindInSystemd(name));
}
