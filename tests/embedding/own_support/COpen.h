#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

// The host's own file. It writes numbers and the lengths of strings in big-endian byte order,
// unlike the support library.
class __attribute__((visibility("default"))) COpen {
public:
    COpen(const char* path, int flags, unsigned int mode);
    ~COpen();
    COpen(const COpen&) = delete;
    COpen& operator=(const COpen&) = delete;
    bool IsValid() const;
    void Read(void* data, int length);
    void Write(const void* data, int length);
    std::uint32_t ReadUnsigned();
    void WriteUnsigned(std::uint32_t value);
    void ReadString(std::string& string);
    void WriteString(const std::string& string);
    void Close();

private:
    std::FILE* file;
};
