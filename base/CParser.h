// Reads an argument character by character, for the parsers of times and periods.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vxsched {

// Reads a command-line argument from its beginning to its end. The argument must outlive the
// parser. Letters are ASCII letters in every locale.
class CParser {
public:
    // `valueKind` is the kind of the value for the messages of Fail(): "time".
    CParser(std::string_view valueKind, std::string_view argument)
        : kind(valueKind), input(argument) {}

    std::size_t Offset() const { return offset; }
    bool IsAtEnd() const { return offset == input.size(); }

    // The next character, and the first one after the digits that come next; 0 at the end.
    char Next() const;
    char NextAfterDigits() const;
    bool IsAtDigit() const;
    bool IsAtLetter() const;

    // Reads the next character if it is the wanted one, and returns whether it was. A wanted
    // lower-case letter accepts the upper-case one too.
    bool TakeIf(char wanted);
    // Read the letters or digits that come next, possibly none. Letters are returned in lower case.
    std::string TakeWord();
    std::string_view TakeDigits();
    void SkipBlanks();

    // Skips blanks. Throws CParseError unless the end of the input follows.
    void ExpectEnd();

    // Throws CParseError for that offset.
    [[noreturn]] void Fail(std::size_t where, std::string_view reason) const;

private:
    std::string_view kind;
    std::string_view input;
    std::size_t offset = 0;
};

}  // namespace vxsched
