#include "runner/CCommand.h"

#include "base/ShellWord.h"

CCommand::CCommand(std::vector<std::string> executed) : words(std::move(executed)) {
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
}

std::string CCommand::ArgumentsAsText(bool isOfJob) const {
    if (isOfJob)
        return vxsched::JoinWords({words.begin() + 1, words.end()});
    return words.size() > 1 ? words[1] : "";
}
