#include "jobs/SplitWords.h"

#include <fmt/format.h>

#include <optional>

#include "jobs/CJobError.h"

namespace vxsched {

namespace {

constexpr std::string_view cBlanks = " \t\n";

class CWords {
public:
    explicit CWords(std::string_view splitText) : text(splitText) {}

    // Empty at the end of the text.
    std::optional<std::string> Next() {
        while (!IsAtEnd() && cBlanks.find(text[offset]) != std::string_view::npos)
            ++offset;
        if (IsAtEnd())
            return {};
        std::string word;
        while (!IsAtEnd() && cBlanks.find(text[offset]) == std::string_view::npos)
            TakePart(word);
        return word;
    }

private:
    bool IsAtEnd() const { return offset == text.size(); }

    void TakePart(std::string& word) {
        const char first = text[offset++];
        if (first == '\'' || first == '"')
            TakeQuoted(first, word);
        else if (first == '\\')
            TakeEscaped(word);
        else
            word += first;
    }

    void TakeQuoted(char quote, std::string& word) {
        const std::size_t begin = offset - 1;
        for (; !IsAtEnd(); ++offset) {
            if (text[offset] == quote) {
                ++offset;
                return;
            }
            // Between double quotes a shell takes a backslash for itself before any other character.
            const bool escapes =
                quote == '"' && text[offset] == '\\' && offset + 1 < text.size() &&
                std::string_view("\"\\$`\n").find(text[offset + 1]) != std::string_view::npos;
            if (escapes)
                ++offset;
            if (!escapes || text[offset] != '\n')
                word += text[offset];
        }
        throw CJobError(
            fmt::format("the quote {} at byte {} is not closed; close it, or write \\{}", quote,
                        begin + 1, quote));
    }

    void TakeEscaped(std::string& word) {
        if (IsAtEnd())
            throw CJobError("the last character is a single backslash; write \\\\ for one");
        if (text[offset] != '\n')
            word += text[offset];
        ++offset;
    }

    const std::string_view text;
    std::size_t offset = 0;
};

}  // namespace

std::vector<std::string> SplitWords(std::string_view text) {
    CWords words(text);
    std::vector<std::string> split;
    while (std::optional<std::string> word = words.Next())
        split.push_back(std::move(*word));
    return split;
}

}  // namespace vxsched
