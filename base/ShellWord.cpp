#include "base/ShellWord.h"

namespace vxsched {

static bool IsPlain(std::string_view string) {
    constexpr char cPlain[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:@%,=";
    return !string.empty() && string.find_first_not_of(cPlain) == std::string_view::npos;
}

std::string ShellWord(std::string_view string) {
    if (IsPlain(string))
        return std::string(string);
    std::string word = "'";
    for (const char character : string) {
        if (character == '\'')
            word += "'\\''";
        else
            word += character;
    }
    return word + '\'';
}

std::string JoinWords(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words)
        line += (line.empty() ? "" : " ") + ShellWord(word);
    return line;
}

}  // namespace vxsched
