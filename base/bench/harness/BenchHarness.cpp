#include "BenchHarness.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace {

constexpr double BATCH_SECONDS = 0.0002;
constexpr int MAX_ITERATIONS = 1 << 20;
constexpr const char* NULL_CASE = "null";

double getMedian(std::vector<double> values) {
    if (values.empty())
        return std::nan("");
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

std::string quote(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            result += '\\';
        result += c;
    }
    return result + "\"";
}

} // namespace

BenchHarness::BenchHarness(std::string subject, Ranks ranks)
    : _subject(std::move(subject)), _ranks(std::move(ranks)) {}

void BenchHarness::addReference(const std::string& group, const std::string& name, Batch batch) {
    _groups.push_back({group, {}, 1});
    addCase(name, batch);
    addCase(NULL_CASE, std::move(batch));
}

void BenchHarness::addCase(const std::string& name, Batch batch) {
    _groups.back().cases.push_back({name, std::move(batch)});
}

double BenchHarness::measure(const Batch& batch, int iterations) const {
    using Clock = std::chrono::steady_clock;
    _ranks.barrier();
    batch(1); // what the other cases pushed out of the caches comes back
    _ranks.barrier();
    const Clock::time_point start = Clock::now();
    batch(iterations);
    return std::chrono::duration<double>(Clock::now() - start).count();
}

int BenchHarness::calibrate(const Batch& batch) const {
    int iterations = 1;
    for (;;) {
        // The shortest of three: a batch that lost its processor says nothing.
        double seconds = measure(batch, iterations);
        for (int i = 0; i < 2; ++i)
            seconds = std::min(seconds, measure(batch, iterations));
        const bool isEnough = seconds >= BATCH_SECONDS || iterations >= MAX_ITERATIONS;
        if (_ranks.broadcast(isEnough))
            return iterations;
        iterations *= 2;
    }
}

void BenchHarness::run(int rounds, const std::string& only) {
    _rounds = rounds;
    std::erase_if(_groups, [&](const Group& group) { return group.name.find(only) == std::string::npos; });
    if (_groups.empty())
        throw std::runtime_error("no group of cases is called anything with \"" + only + "\"");
    std::vector<std::pair<Group*, Case*>> order;
    for (Group& group : _groups) {
        group.iterations = calibrate(group.cases.front().batch);
        for (Case& one : group.cases) {
            one.nanoseconds.assign(static_cast<std::size_t>(rounds), 0.0);
            order.emplace_back(&group, &one);
        }
    }
    for (int round = 0; round < rounds; ++round) {
        std::rotate(order.begin(), order.begin() + 1, order.end());
        for (const auto& [group, one] : order)
            one->nanoseconds[static_cast<std::size_t>(round)] =
                measure(one->batch, group->iterations) / group->iterations * 1e9;
    }
}

double BenchHarness::getRatio(const Group& group, const Case& other) {
    const std::vector<double>& reference = group.cases.front().nanoseconds;
    std::vector<double> ratios;
    for (std::size_t i = 0; i < reference.size(); ++i)
        ratios.push_back(other.nanoseconds[i] / reference[i]);
    return getMedian(std::move(ratios));
}

void BenchHarness::print(std::FILE* stream) const {
    if (_ranks.rank != 0)
        return;
    std::fprintf(stream, "%s, %d ranks, %d rounds\n", _subject.c_str(), _ranks.size, _rounds);
    for (const Group& group : _groups)
        for (const Case& one : group.cases)
            std::fprintf(stream, "%-28s %-24s %12.1f ns  %6.3f\n", group.name.c_str(), one.name.c_str(),
                         getMedian(one.nanoseconds), getRatio(group, one));
}

void BenchHarness::writeJson(const std::string& path) const {
    if (_ranks.rank != 0)
        return;
    std::vector<Figure> figures;
    for (const Group& group : _groups)
        for (const Case& one : group.cases)
            figures.push_back({group.name, one.name, getMedian(one.nanoseconds), getRatio(group, one)});
    writeJson(path, _subject, _ranks.size, _rounds, figures);
}

void BenchHarness::writeJson(const std::string& path, const std::string& subject, int ranks, int rounds,
                             const std::vector<Figure>& figures) {
    std::FILE* const file = std::fopen(path.c_str(), "w");
    if (!file)
        throw std::runtime_error("can't write " + path);
    std::fprintf(file, "{\"subject\": %s, \"ranks\": %d, \"rounds\": %d, \"cases\": [",
                 quote(subject).c_str(), ranks, rounds);
    const char* separator = "";
    for (const Figure& figure : figures) {
        std::fprintf(file, "%s\n  {\"group\": %s, \"case\": %s, \"ns\": %.3f, \"ratio\": %.5f}", separator,
                     quote(figure.group).c_str(), quote(figure.name).c_str(), figure.nanoseconds,
                     figure.ratio);
        separator = ",";
    }
    std::fprintf(file, "\n]}\n");
    if (std::fclose(file) != 0)
        throw std::runtime_error("can't write " + path);
}
