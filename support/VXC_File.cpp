#include "VXC_File.h"

#include <algorithm>
#include <cstring>
#include <string_view>

static void Store(std::string_view text, char* buffer, std::size_t capacity) {
    const std::size_t length = std::min(text.size(), capacity - 1);
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
}

void VXC_File::VXC_StripPathUrl(const char* path, char* directory, char* name, char* extension) {
    const std::string_view whole(path);
    const std::string_view component = whole.substr(whole.find_last_of("/\\") + 1);

    std::size_t dot = component.rfind('.');
    const bool none = dot == std::string_view::npos || dot == 0 || dot + 1 == component.size();
    if (none)
        dot = component.size();

    if (directory != nullptr)
        Store(whole.substr(0, whole.size() - component.size()), directory, whole.size() + 1);
    if (name != nullptr)
        Store(component.substr(0, dot), name, cNameCapacity);
    if (extension != nullptr && !none)
        Store(component.substr(dot), extension, cExtensionCapacity);
}
