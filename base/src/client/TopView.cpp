#include "client/TopView.h"

#include "kernel/Properties.h"

#include <string_view>

bool TopView::setSort(int letter) {
    constexpr std::string_view LETTERS = "PMWN";
    const std::size_t place =
        letter > 0 && letter < 128 ? LETTERS.find(static_cast<char>(letter)) : LETTERS.npos;
    if (place == LETTERS.npos)
        return false;
    sort = static_cast<Sort>(LETTERS[place]);
    isReversed = false;
    top = 0;
    return true;
}

void TopView::switchLines() {
    showsRanks = !showsRanks;
    host.clear();
    selected.clear();
    top = 0;
}

void TopView::enter() {
    const std::string chosen = showsRanks ? std::string() : selected;
    const std::string left = host;
    switchLines();
    host = chosen;
    selected = left;
}

std::string TopView::getRequest() const {
    Properties request;
    request.set("ranks", showsRanks);
    if (showsRanks && !host.empty())
        request.set("host", host);
    return request.toString();
}
