#pragma once

#include "kernel/KernelExport.h"
#include "kernel/Properties.h"

#include <cstddef>
#include <deque>
#include <mutex>
#include <vector>

/// Keeps the bills of the latest commands: what each cost. Any thread.
class ORVEX_KERNEL_EXPORT BillBook {
public:
    static constexpr std::size_t MAX_BILLS = 100;

    /// Lives to the end of the process.
    static BillBook& getSingleton();
    BillBook(const BillBook&) = delete;
    BillBook& operator=(const BillBook&) = delete;

    void add(const Properties& bill);
    /// The newest `count`, the oldest of them first.
    std::vector<Properties> getLatest(std::size_t count = MAX_BILLS) const;

private:
    BillBook() = default;

    mutable std::mutex _mutex;
    std::deque<Properties> _bills;
};
