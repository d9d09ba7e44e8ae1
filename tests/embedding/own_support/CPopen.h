#pragma once

#include <cstdio>

class __attribute__((visibility("default"))) CPopen {
public:
    CPopen(const char* command, const char* mode);
    ~CPopen();
    CPopen(const CPopen&) = delete;
    CPopen& operator=(const CPopen&) = delete;
    int Read(void* buffer, int size);
    int Close();

private:
    std::FILE* pipe;
};
