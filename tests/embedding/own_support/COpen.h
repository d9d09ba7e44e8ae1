#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

// A host's own file, with texts as the host likes them: big-endian lengths, unlike the support
// library's.
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
    void ReadString(std::string& text);
    void WriteString(const std::string& text);
    void Close();

private:
    std::FILE* file;
};
