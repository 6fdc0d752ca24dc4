#include "kernel/NearestName.h"

#include "platform/StringHelper.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace {

/// Nobody types longer names, and the distance costs the product of both lengths.
constexpr std::size_t MAX_COMPARED_LENGTH = 64;

/// Characters to insert, delete or replace to make `b` of `a`.
std::size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t(0));
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

} // namespace

std::string NearestName::find(const std::string& typed, const std::vector<std::string>& names) {
    if (typed.empty() || typed.size() > MAX_COMPARED_LENGTH)
        return {};
    const std::string wanted = StringHelper::toLower(typed);
    // A third of the letters may differ; a beginning of a name is near in any case.
    std::size_t best = std::max<std::size_t>(1, wanted.size() / 3) + 1;
    std::string nearest;
    for (const std::string& name : names) {
        const std::string candidate = StringHelper::toLower(name);
        const bool isBeginning = wanted.size() >= 3 && candidate.starts_with(wanted);
        const std::size_t distance = candidate == wanted ? 0
                                     : isBeginning       ? 1
                                                         : editDistance(wanted, candidate);
        if (distance < best) {
            best = distance;
            nearest = name;
        }
    }
    return nearest;
}
