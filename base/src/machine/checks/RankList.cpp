#include "machine/checks/RankList.h"

#include <cstddef>

std::string RankList::describe(const std::vector<unsigned>& ranks) {
    std::string text;
    for (std::size_t first = 0; first < ranks.size();) {
        std::size_t last = first;
        while (last + 1 < ranks.size() && ranks[last + 1] == ranks[last] + 1)
            ++last;
        text += (text.empty() ? "" : ",") + std::to_string(ranks[first]);
        if (last != first)
            text += "-" + std::to_string(ranks[last]);
        first = last + 1;
    }
    return text;
}
