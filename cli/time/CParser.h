#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vxsched {

// A place in a text from the command line, and the steps with which it is read from the front to
// the back. The text must outlive the reader. Letters are ASCII letters, whatever the locale.
class CParser {
public:
    // `kind` is what the text is to be, for the message of Fail: "time".
    CParser(std::string_view kind, std::string_view text) : textKind(kind), whole(text) {}

    std::size_t Offset() const { return offset; }
    bool IsAtEnd() const { return offset == whole.size(); }

    // The character at the place, or the one behind the digits there; 0 at the end of the text.
    char Next() const;
    char NextAfterDigits() const;
    bool IsAtDigit() const;
    bool IsAtLetter() const;

    // Goes over the character if it is the wanted one (a small letter stands for the capital one
    // too), and says whether it was.
    bool TakeIf(char wanted);
    // Goes over letters, or digits, as many as there are (there may be none), and returns them; the
    // letters in lower case.
    std::string TakeWord();
    std::string_view TakeDigits();
    void SkipBlanks();

    // Goes over blanks to the end of the text; fails when there is something else.
    void ExpectEnd();

    // Throws CParseError with this place and reason.
    [[noreturn]] void Fail(std::size_t where, std::string_view reason) const;

private:
    std::string_view textKind;
    std::string_view whole;
    std::size_t offset = 0;
};

}  // namespace vxsched
