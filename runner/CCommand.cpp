#include "runner/CCommand.h"

#include "base/ShellWord.h"

std::string JoinWords(const std::vector<std::string>& words) {
    std::string joined;
    for (const std::string& word : words)
        joined += (joined.empty() ? "" : " ") + vxsched::ShellWord(word);
    return joined;
}

CCommand::CCommand(std::vector<std::string> executed) : words(std::move(executed)) {
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
}

std::string CCommand::ArgumentsAsText(bool isOfJob) const {
    if (isOfJob)
        return JoinWords({words.begin() + 1, words.end()});
    return words.size() > 1 ? words[1] : "";
}
