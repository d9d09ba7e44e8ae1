#include "crontab/CrontabName.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>
#include <utility>
#include <vector>

#include "base/DisplayText.h"

namespace vxsched {

namespace {

constexpr std::size_t cLongest = 60;
constexpr std::string_view cWordEnds = " \t";

std::vector<std::string_view> WordsOf(std::string_view text) {
    std::vector<std::string_view> words;
    while (!text.empty()) {
        const std::size_t begin = text.find_first_not_of(cWordEnds);
        if (begin == std::string_view::npos)
            break;
        const std::size_t end = std::min(text.find_first_of(cWordEnds, begin), text.size());
        words.push_back(text.substr(begin, end - begin));
        text.remove_prefix(end);
    }
    return words;
}

// As many words as a name takes.
std::string Shortened(std::string_view text) {
    std::string name;
    for (const std::string_view word : WordsOf(text)) {
        if (!name.empty() && name.size() + 1 + word.size() > cLongest)
            break;
        name.append(name.empty() ? "" : " ").append(word.substr(0, cLongest));
    }
    while (!name.empty() && (name.back() == '.' || name.back() == ':'))
        name.pop_back();
    return name;
}

// A job that was commented out, or the heads of the columns.
bool IsNoText(std::string_view comment) {
    const std::vector<std::string_view> words = WordsOf(comment);
    if (words.empty() || words.front() == "m" ||
        words.front().find_first_not_of("-=#*") == std::string_view::npos)
        return true;
    const char first = words.front().front();
    return first == '@' || (words.size() > 5 && (std::isdigit(first) != 0 || first == '*'));
}

// Those that execute what follows them.
bool IsPrefix(std::string_view program) {
    constexpr std::array cPrefixes = {
        "[",    "bash", "cd",    "chronic", "env",     "exec",   "flock",   "if",   "ionice",
        "nice", "node", "nohup", "perl",    "php",     "python", "python3", "ruby", "setlock",
        "sh",   "sudo", "test",  "time",    "timeout", "{",      "(",       "!"};
    return std::find(cPrefixes.begin(), cPrefixes.end(), program) != cPrefixes.end();
}

std::string ProgramIn(std::string_view command) {
    std::string_view found;
    bool isDirectory = false;  // of a cd
    for (std::string_view word : WordsOf(command)) {
        if (std::exchange(isDirectory, word == "cd"))
            continue;
        const std::size_t begin = word.find_first_not_of("(\"'{");
        if (begin == std::string_view::npos || word.front() == '-' ||
            word.find('=') != std::string_view::npos)
            continue;
        word = word.substr(begin);
        const std::string_view base = word.substr(word.rfind('/') + 1);
        const std::string_view name = base.substr(0, base.find_first_of(";|&<>()\"'"));
        if (name.empty())
            continue;
        if (found.empty())
            found = name;
        const bool isNumber = std::isdigit(static_cast<unsigned char>(name.front())) != 0;
        if (!IsPrefix(name) && !isNumber) {
            found = name;
            break;
        }
    }
    return std::string(found.substr(0, cLongest));
}

}  // namespace

std::string NameOf(const TCrontabJob& job) {
    std::string name = IsNoText(job.comment) ? "" : Shortened(job.comment);
    if (name.empty())
        name = ProgramIn(job.command);
    return name.empty() ? "job" : Show(name).string;
}

}  // namespace vxsched
