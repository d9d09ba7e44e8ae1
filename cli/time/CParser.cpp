#include "cli/time/CParser.h"

#include <algorithm>

#include "cli/time/CParseError.h"

namespace vxsched {

namespace {

constexpr std::string_view cDigits = "0123456789";

char LowerCase(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                : character;
}

bool IsLetter(char character) {
    return LowerCase(character) >= 'a' && LowerCase(character) <= 'z';
}

}  // namespace

char CParser::Next() const {
    return IsAtEnd() ? '\0' : whole[offset];
}

char CParser::NextAfterDigits() const {
    const std::size_t behind = whole.find_first_not_of(cDigits, offset);
    return behind == std::string_view::npos ? '\0' : whole[behind];
}

bool CParser::IsAtDigit() const {
    return !IsAtEnd() && cDigits.find(Next()) != std::string_view::npos;
}

bool CParser::IsAtLetter() const {
    return IsLetter(Next());
}

bool CParser::TakeIf(char wanted) {
    if (IsAtEnd() || LowerCase(Next()) != wanted)
        return false;
    ++offset;
    return true;
}

std::string CParser::TakeWord() {
    std::string word;
    for (; IsAtLetter(); ++offset)
        word += LowerCase(Next());
    return word;
}

std::string_view CParser::TakeDigits() {
    const std::size_t start = offset;
    offset = std::min(whole.find_first_not_of(cDigits, start), whole.size());
    return whole.substr(start, offset - start);
}

void CParser::SkipBlanks() {
    offset = std::min(whole.find_first_not_of(' ', offset), whole.size());
}

void CParser::ExpectEnd() {
    SkipBlanks();
    if (!IsAtEnd())
        Fail(offset, "the " + std::string(textKind) + " ends before this");
}

void CParser::Fail(std::size_t where, std::string_view reason) const {
    throw CParseError(textKind, whole, where, reason);
}

}  // namespace vxsched
