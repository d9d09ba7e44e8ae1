#pragma once

#include <string>
#include <vector>

// A program and its arguments, for the functions that execute them.
class CCommand {
public:
    // Of the program first; there is one.
    explicit CCommand(std::vector<std::string> executed);
    CCommand(const CCommand&) = delete;
    CCommand& operator=(const CCommand&) = delete;

    const char* Program() const { return pointers.front(); }
    char* const* Arguments() const { return pointers.data(); }

    // What a record has as the parameter: of a job all arguments, quoted as for a shell.
    std::string ArgumentsAsText(bool isOfJob) const;

private:
    std::vector<std::string> words;
    std::vector<char*> pointers;  // to the words, with a null pointer at the end
};
