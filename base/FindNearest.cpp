#include "base/FindNearest.h"

#include <algorithm>
#include <cstddef>

namespace vxsched {

namespace {

// Nobody types a longer name by hand, and the time grows with its square.
constexpr std::size_t cLongestComparedName = 64;

char Lower(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                : character;
}

// How many characters have to be inserted, removed, exchanged or swapped with their neighbour to get
// from one name to the other; the case of letters does not count.
std::size_t Distance(std::string_view from, std::string_view to) {
    std::vector<std::vector<std::size_t>> distance(from.size() + 1,
                                                   std::vector<std::size_t>(to.size() + 1));
    for (std::size_t i = 0; i <= from.size(); ++i) {
        for (std::size_t j = 0; j <= to.size(); ++j) {
            if (i == 0 || j == 0) {
                distance[i][j] = i + j;
                continue;
            }
            const bool isSame = Lower(from[i - 1]) == Lower(to[j - 1]);
            distance[i][j] = std::min({distance[i - 1][j] + 1, distance[i][j - 1] + 1,
                                       distance[i - 1][j - 1] + (isSame ? 0 : 1)});
            const bool isSwapped = i > 1 && j > 1 && Lower(from[i - 1]) == Lower(to[j - 2]) &&
                                   Lower(from[i - 2]) == Lower(to[j - 1]);
            if (isSwapped)
                distance[i][j] = std::min(distance[i][j], distance[i - 2][j - 2] + 1);
        }
    }
    return distance.back().back();
}

}  // namespace

std::string_view FindNearest(std::string_view name, const std::vector<std::string_view>& names) {
    std::string_view nearest;
    std::size_t best = std::max<std::size_t>(name.size() / 3, 1) + 1;
    for (const std::string_view other : names) {
        const std::size_t shorter = std::min(name.size(), other.size());
        const std::size_t longer = std::max(name.size(), other.size());
        if (longer > cLongestComparedName || longer - shorter >= best)
            continue;
        const std::size_t distance = Distance(name, other);
        if (distance < best && distance < longer) {
            best = distance;
            nearest = other;
        }
    }
    return nearest;
}

}  // namespace vxsched
