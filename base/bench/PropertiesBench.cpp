// Writes and parses a command of 1 KiB as Properties and with bare RapidJSON, in turns in one process, and
// prints the ratio of the two as JSON. Exit value 1 when the two texts of the command don't hold the same.

#include "kernel/Properties.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr int ROUNDS = 401;
constexpr int REPEATS = 100;

Properties makeCommand() {
    Properties command;
    command.set("command", "ReportRegion");
    command.set("filename", L"/scratch/project/wing/run-17/wing-\u03b1-4.0.sim");
    command.set("iteration", 12500);
    command.set("identifier", 9007199254740993ll);
    command.set("tolerance", 1.0e-6);
    command.set("verbose", false);
    command.set("note", "first line\nsecond line with \"quotes\"");
    command.set("parts", std::vector<std::string>{"inlet", "outlet", "wall", "symmetry plane", "far field"});
    command.set("origin", std::vector<double>{0.0, -1.25, 3.0517578125e-05});
    command.set("ranks", std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15});
    for (const char* field : {"pressure", "velocity", "temperature", "density", "turbulence"}) {
        Properties limits;
        limits.set("minimum", -101325.0);
        limits.set("maximum", 2.5e5);
        limits.set("relaxation", 0.7);
        limits.set("enabled", true);
        limits.set("unit", "Pa");
        command.set(field, limits);
    }
    Properties padding;
    while (command.toString().size() + 20 < 1024) {
        padding.set(std::to_string(padding.size()), "a value of some length");
        command.set("options", padding);
    }
    return command;
}

template <class Operation>
double measure(const Operation& operation) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < REPEATS; ++i)
        operation();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    return elapsed.count() / REPEATS;
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

std::string bareText(const rapidjson::Document& document) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    document.Accept(writer);
    return buffer.GetString();
}

} // namespace

int main() {
    const Properties command = makeCommand();
    const std::string text = command.toString();
    rapidjson::Document document;
    document.Parse(text.c_str(), text.size());
    if (document.HasParseError() || !(Properties(bareText(document)) == command)) {
        std::fputs("The two don't hold the same\n", stderr);
        return EXIT_FAILURE;
    }

    std::size_t sum = 0; // keeps the work from being optimised away
    const auto ourWrite = [&] { sum += command.toString().size(); };
    const auto ourParse = [&] { sum += Properties(text).size(); };
    const auto bareWrite = [&] {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        document.Accept(writer);
        sum += buffer.GetSize();
    };
    const auto bareParse = [&] {
        rapidjson::Document parsed;
        parsed.Parse(text.c_str(), text.size());
        sum += parsed.MemberCount();
    };

    std::vector<double> times[4];
    std::vector<double> ratios;
    for (int round = 0; round < ROUNDS; ++round) {
        for (int i = 0; i < 4; ++i) {
            const int which = (round + i) % 4;
            times[which].push_back(which == 0   ? measure(ourWrite)
                                   : which == 1 ? measure(ourParse)
                                   : which == 2 ? measure(bareWrite)
                                                : measure(bareParse));
        }
        ratios.push_back((times[0].back() + times[1].back()) / (times[2].back() + times[3].back()));
    }
    std::printf("{\"benchmark\":\"Properties\",\"bytes\":%zu,\"ratio\":%.3f,\"limit\":1.3,"
                "\"write\":{\"ratio\":%.3f,\"us\":%.3f,\"bareUs\":%.3f},"
                "\"parse\":{\"ratio\":%.3f,\"us\":%.3f,\"bareUs\":%.3f},\"checksum\":%zu}\n",
                text.size(), median(ratios), median(times[0]) / median(times[2]), median(times[0]) * 1e6,
                median(times[2]) * 1e6, median(times[1]) / median(times[3]), median(times[1]) * 1e6,
                median(times[3]) * 1e6, sum);
    return EXIT_SUCCESS;
}
