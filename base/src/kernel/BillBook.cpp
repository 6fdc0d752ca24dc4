#include "kernel/BillBook.h"

#include <algorithm>
#include <iterator>

BillBook& BillBook::getSingleton() {
    static auto* const book = new BillBook; // clients may ask to the very end of the process
    return *book;
}

void BillBook::add(const Properties& bill) {
    const std::lock_guard lock(_mutex);
    _bills.push_back(bill);
    if (_bills.size() > MAX_BILLS)
        _bills.pop_front();
}

std::vector<Properties> BillBook::getLatest(std::size_t count) const {
    const std::lock_guard lock(_mutex);
    const auto skipped = _bills.size() - std::min(count, _bills.size());
    return {std::next(_bills.begin(), static_cast<std::ptrdiff_t>(skipped)), _bills.end()};
}
