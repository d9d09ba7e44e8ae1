#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vxsched {

enum class EColour { cPlain, cBold, cDim, cRed, cGreen, cYellow };

// Standard output: coloured and cut to its width on a terminal, plain and whole everywhere else. It
// is written at once by Finish().
class COutput {
public:
    // On a terminal, and NO_COLOR is not set.
    COutput();

    void Line(std::string_view text);
    void Raw(std::string_view text);

    // Throws CClientError when it could not all be written.
    void Finish();

    std::size_t Width() const { return width; }  // 0: without limit
    std::string Coloured(std::string_view text, EColour colour) const;

private:
    std::string text;
    std::size_t width = 0;
    bool hasColours = false;
};

// Columns of text, aligned; the last one takes what is left of the width.
class CColumns {
public:
    explicit CColumns(std::vector<std::string> headings);

    struct TCell {
        std::string text;  // is shown with Show()
        EColour colour = EColour::cPlain;
    };
    void Add(std::vector<TCell> row);
    std::size_t Count() const { return rows.size() - 1; }  // without the headings
    void Print(COutput& output) const;

private:
    std::vector<std::vector<TCell>> rows;
};

}  // namespace vxsched
