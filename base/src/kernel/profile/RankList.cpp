#include "kernel/profile/RankList.h"

namespace {

/// "3" or "3-7" each.
std::vector<std::string> toRanges(const std::vector<unsigned>& ranks) {
    std::vector<std::string> ranges;
    for (std::size_t first = 0; first < ranks.size();) {
        std::size_t last = first;
        while (last + 1 < ranks.size() && ranks[last + 1] == ranks[last] + 1)
            ++last;
        std::string range = std::to_string(ranks[first]);
        if (last != first)
            range += "-" + std::to_string(ranks[last]);
        ranges.push_back(std::move(range));
        first = last + 1;
    }
    return ranges;
}

} // namespace

std::string RankList::describe(const std::vector<unsigned>& ranks) {
    std::string text;
    for (const std::string& range : toRanges(ranks))
        text += (text.empty() ? "" : ",") + range;
    return text;
}

std::string RankList::describe(const std::vector<unsigned>& ranks, std::size_t width) {
    std::string whole = describe(ranks);
    if (whole.size() <= width)
        return whole;
    const std::vector<std::string> ranges = toRanges(ranks);
    const std::string end = ",...," + ranges.back() + " (" + std::to_string(ranks.size()) + " ranks)";
    std::string text = ranges.front();
    for (std::size_t i = 1; i + 1 < ranges.size(); ++i) {
        if (text.size() + 1 + ranges[i].size() + end.size() > width)
            break;
        text += "," + ranges[i];
    }
    return text + end;
}
