#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace vxsched {

enum class EColour : std::uint8_t { cPlain, cBold, cDim, cRed, cGreen, cYellow };

// Standard output: coloured and cut to its width on a terminal, plain and whole everywhere else. It
// is kept until Finish() writes it.
class COutput {
public:
    // On a terminal, and NO_COLOR is not set.
    COutput();

    void Line(std::string_view text);
    void Raw(std::string_view text);

    // Throws CError when it could not all be written.
    void Finish();

    std::size_t Length() const { return text.size(); }  // of what is not written yet
    std::size_t Width() const { return width; }         // 0: without limit
    std::string Coloured(std::string_view text, EColour colour) const;
    void AppendColoured(std::string_view part, EColour colour, std::string& to) const;

private:
    std::string text;
    std::size_t width = 0;
    bool hasColours = false;
};

// Columns of text, aligned; the last one takes what is left of the width.
class CColumns {
public:
    explicit CColumns(std::initializer_list<std::string_view> headings);

    // The next cell of the row, or the first of another one behind a full row. It is shown with
    // Show().
    void Add(std::string_view text, EColour colour = EColour::cPlain);
    std::size_t Count() const { return cells.size() / widths.size() - 1; }  // without the headings
    void Print(COutput& output) const;

private:
    struct TCell {
        std::uint32_t length;  // of its text, in bytes; it begins where the one before ends
        std::uint32_t columns;
        EColour colour;
    };

    std::string texts;  // of all cells, one behind the other
    std::vector<TCell> cells;
    std::vector<std::size_t> widths;  // of the columns
};

}  // namespace vxsched
