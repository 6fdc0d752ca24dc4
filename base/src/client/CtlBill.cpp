#include "client/CtlBill.h"

#include "client/Quantity.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace {

enum class Unit { SECONDS, SHARE, BYTES, COUNT };

struct Figure {
    const char* key;
    const char* title;
    Unit unit;
};

constexpr std::array FIGURES{Figure{"processor", "processor time", Unit::SECONDS},
                             Figure{"waiting", "waiting", Unit::SECONDS},
                             Figure{"waitingShare", "share of waiting", Unit::SHARE},
                             Figure{"lent", "lent to threads", Unit::SECONDS},
                             Figure{"peakMemory", "peak memory", Unit::BYTES},
                             Figure{"addedMemory", "added memory", Unit::BYTES},
                             Figure{"messages", "messages", Unit::COUNT},
                             Figure{"bytes", "bytes", Unit::BYTES}};

[[gnu::format(printf, 1, 2)]] std::string format(const char* form, ...) {
    std::array<char, 512> text{};
    va_list arguments;
    va_start(arguments, form);
    std::vsnprintf(text.data(), text.size(), form, arguments);
    va_end(arguments);
    return text.data();
}

std::string showSeconds(double seconds) {
    const double size = std::abs(seconds);
    if (size == 0.0)
        return "0 s";
    if (size < 1e-3)
        return format("%.1f us", seconds * 1e6);
    if (size < 1.0)
        return format("%.1f ms", seconds * 1e3);
    return format(size < 1000.0 ? "%.2f s" : "%.0f s", seconds);
}

std::string show(double value, Unit unit) {
    switch (unit) {
    case Unit::SECONDS:
        return showSeconds(value);
    case Unit::SHARE:
        return format("%.1f %%", value * 100.0);
    case Unit::BYTES:
        return Quantity::bytes(value);
    case Unit::COUNT:
        break;
    }
    return format("%.0f", value);
}

std::string localTime(double secondsSinceEpoch) {
    const auto time = static_cast<std::time_t>(secondsSinceEpoch);
    std::tm parts{};
    std::array<char, 32> text{};
    if (localtime_r(&time, &parts))
        std::strftime(text.data(), text.size(), "%H:%M:%S", &parts);
    return text.data();
}

double read(const Properties& bill, const char* figure, const char* key) {
    return bill.hasName(figure) ? bill.getProperties(figure).getReal(key) : 0.0;
}

} // namespace

std::string CtlBill::describe(const Properties& bill) {
    const unsigned ranks = bill.getUnsignedInt("ranks");
    std::string text = "Bill of " + bill.getString("command") + ": " + showSeconds(bill.getReal("wall")) +
                       (ranks > 1 ? " on " + std::to_string(ranks) + " ranks" : std::string()) + "\n";
    if (ranks > 1)
        text += format("  %-16s %11s  %18s  %11s  %18s  %9s\n", "", "total", "least (rank)", "mean",
                       "most (rank)", "most/mean");
    for (const Figure& figure : FIGURES) {
        if (!bill.hasName(figure.key))
            continue;
        const Properties values = bill.getProperties(figure.key);
        const auto value = [&](const char* key) { return show(values.getReal(key), figure.unit); };
        if (ranks <= 1) {
            text += format("  %-16s %11s\n", figure.title, value("max").c_str());
            continue;
        }
        const auto withRank = [&](const char* key, const char* rank) {
            return value(key) + " (" + std::to_string(values.getUnsignedInt(rank)) + ")";
        };
        const bool hasTotal = figure.unit != Unit::SHARE;
        text +=
            format("  %-16s %11s  %18s  %11s  %18s  %9.2f\n", figure.title,
                   hasTotal ? value("total").c_str() : "", withRank("min", "minRank").c_str(),
                   value("mean").c_str(), withRank("max", "maxRank").c_str(), values.getReal("imbalance"));
    }
    return text;
}

std::string CtlBill::describeSoFar(const Properties& bill) {
    return "rank " + std::to_string(bill.getUnsignedInt("rank")) + ": " +
           showSeconds(bill.getReal("processor")) + " of processor time, " +
           show(bill.getReal("waitingShare"), Unit::SHARE) + " waiting, " +
           Quantity::bytes(bill.getReal("addedMemory")) + " of memory added, " +
           show(bill.getReal("messages"), Unit::COUNT) + " messages";
}

std::string CtlBill::list(const std::vector<Properties>& bills) {
    if (bills.empty())
        return "No command has run yet.\n";
    std::size_t width = 7;
    for (const Properties& bill : bills)
        width = std::max(width, bill.getString("command").size());
    width = std::min<std::size_t>(width, 40);
    std::string text =
        format("%-8s  %-*s  %10s  %10s  %9s  %8s  %12s  %10s  %10s\n", "began", int(width), "command", "wall",
               "processor", "most/mean", "waiting", "peak memory", "messages", "bytes");
    for (const Properties& bill : bills) {
        text += format("%-8s  %-*.40s  %10s  %10s  %9.2f  %8s  %12s  %10s  %10s%s\n",
                       localTime(bill.getReal("began")).c_str(), int(width),
                       bill.getString("command").c_str(), showSeconds(bill.getReal("wall")).c_str(),
                       showSeconds(read(bill, "processor", "total")).c_str(),
                       read(bill, "processor", "imbalance"),
                       show(read(bill, "waitingShare", "mean"), Unit::SHARE).c_str(),
                       Quantity::bytes(read(bill, "peakMemory", "max")).c_str(),
                       show(read(bill, "messages", "total"), Unit::COUNT).c_str(),
                       Quantity::bytes(read(bill, "bytes", "total")).c_str(),
                       bill.getOr("failed", false) ? "  failed" : "");
    }
    return text;
}
