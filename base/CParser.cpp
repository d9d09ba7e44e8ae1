#include "base/CParser.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/CParseError.h"

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
    return IsAtEnd() ? '\0' : input[offset];
}

char CParser::NextAfterDigits() const {
    const std::size_t after = input.find_first_not_of(cDigits, offset);
    return after == std::string_view::npos ? '\0' : input[after];
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
    const std::size_t begin = offset;
    offset = std::min(input.find_first_not_of(cDigits, begin), input.size());
    return input.substr(begin, offset - begin);
}

void CParser::SkipBlanks() {
    offset = std::min(input.find_first_not_of(' ', offset), input.size());
}

void CParser::ExpectEnd() {
    SkipBlanks();
    if (!IsAtEnd())
        Fail(offset, fmt::format("unexpected input after the {}", kind));
}

void CParser::Fail(std::size_t where, std::string_view reason) const {
    throw CParseError(kind, input, where, reason);
}

}  // namespace vxsched
