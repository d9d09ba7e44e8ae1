#include "cli/time/CTextReader.h"

#include <algorithm>

#include "cli/time/CTextError.h"

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

char CTextReader::Next() const {
    return IsAtEnd() ? '\0' : whole[offset];
}

char CTextReader::NextBehindDigits() const {
    const std::size_t behind = whole.find_first_not_of(cDigits, offset);
    return behind == std::string_view::npos ? '\0' : whole[behind];
}

bool CTextReader::IsAtDigit() const {
    return !IsAtEnd() && cDigits.find(Next()) != std::string_view::npos;
}

bool CTextReader::IsAtLetter() const {
    return IsLetter(Next());
}

bool CTextReader::TakeIf(char wanted) {
    if (IsAtEnd() || LowerCase(Next()) != wanted)
        return false;
    ++offset;
    return true;
}

std::string CTextReader::TakeWord() {
    std::string word;
    for (; IsAtLetter(); ++offset)
        word += LowerCase(Next());
    return word;
}

std::string_view CTextReader::TakeDigits() {
    const std::size_t start = offset;
    offset = std::min(whole.find_first_not_of(cDigits, start), whole.size());
    return whole.substr(start, offset - start);
}

void CTextReader::SkipBlanks() {
    offset = std::min(whole.find_first_not_of(' ', offset), whole.size());
}

void CTextReader::ExpectEnd() {
    SkipBlanks();
    if (!IsAtEnd())
        Fail(offset, "the " + std::string(textKind) + " ends before this");
}

void CTextReader::Fail(std::size_t where, std::string_view reason) const {
    throw CTextError(textKind, whole, where, reason);
}

}  // namespace vxsched
