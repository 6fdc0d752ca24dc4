#include "client/report/ReportData.h"

#include "kernel/Error.h"
#include "kernel/Raise.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <algorithm>
#include <cmath>
#include <optional>

namespace {

using rapidjson::Value;

constexpr unsigned PARSE_FLAGS = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag;
constexpr double MAX_NUMBER = 1e18; ///< beyond it no time, memory or count of a job is real

/// A value of the document and the place where it stands, for messages.
class Place {
public:
    Place(const Value& value, std::string path) : _value(value), _path(std::move(path)) {}

    [[noreturn]] void refuse(const std::string& reason) const {
        throw InputError("The profile is damaged: " + (_path.empty() ? "it" : _path) + " " + reason);
    }
    std::optional<Place> find(const char* key) const {
        if (!_value.IsObject())
            refuse("isn't an object");
        const auto member = _value.FindMember(key);
        if (member == _value.MemberEnd() || member->value.IsNull())
            return std::nullopt;
        return Place(member->value, _path.empty() ? key : _path + "." + key);
    }
    std::vector<Place> elements(std::size_t maxCount) const {
        if (!_value.IsArray())
            refuse("isn't a list");
        if (_value.Size() > maxCount)
            refuse("has " + std::to_string(_value.Size()) + " entries, more than " +
                   std::to_string(maxCount));
        std::vector<Place> places;
        places.reserve(_value.Size());
        for (rapidjson::SizeType i = 0; i < _value.Size(); ++i)
            places.emplace_back(_value[i], _path + "[" + std::to_string(i) + "]");
        return places;
    }
    std::string text() const {
        if (!_value.IsString())
            refuse("isn't a text");
        return {_value.GetString(), _value.GetStringLength()};
    }
    bool truth() const {
        if (!_value.IsBool())
            refuse("is neither true nor false");
        return _value.GetBool();
    }
    /// A figure of a job. One that couldn't be measured ("not a number") counts as 0.
    double number() const { return numberOf(_value); }
    long integer(long min, long max) const {
        const double value = number();
        if (value != std::floor(value) || value < static_cast<double>(min) ||
            value > static_cast<double>(max))
            refuse("isn't an integer from " + std::to_string(min) + " to " + std::to_string(max));
        return static_cast<long>(value);
    }
    std::size_t index(std::size_t size) const {
        if (size == 0)
            refuse("is an index into nothing");
        return static_cast<std::size_t>(integer(0, static_cast<long>(size) - 1));
    }
    /// The numbers of a list, without a Place for each.
    std::vector<double> numbers(std::size_t maxCount) const {
        if (!_value.IsArray() || _value.Size() > maxCount)
            refuse("isn't a list of at most " + std::to_string(maxCount) + " numbers");
        std::vector<double> numbers;
        numbers.reserve(_value.Size());
        for (const Value& each : _value.GetArray())
            numbers.push_back(numberOf(each));
        return numbers;
    }
    std::vector<double> numbersOf(std::size_t count, const std::string& things) const {
        std::vector<double> list = numbers(std::max(count, ReportData::MAX_RANKS));
        if (!list.empty() && list.size() != count)
            refuse("has " + std::to_string(list.size()) + " numbers for " + std::to_string(count) + " " +
                   things);
        return list;
    }
    std::vector<std::pair<std::string, std::string>> texts(std::size_t maxCount) const {
        if (!_value.IsObject() || _value.MemberCount() > maxCount)
            refuse("isn't an object of at most " + std::to_string(maxCount) + " texts");
        std::vector<std::pair<std::string, std::string>> rows;
        for (const auto& member : _value.GetObject()) {
            const std::string key(member.name.GetString(), member.name.GetStringLength());
            rows.emplace_back(key, Place(member.value, _path + "." + key).text());
        }
        return rows;
    }

private:
    double numberOf(const Value& value) const {
        if (value.IsObject() && value.MemberCount() == 1 && value.HasMember("$real"))
            return 0.0;
        if (!value.IsNumber())
            refuse("isn't a number, or holds something else");
        const double number = value.GetDouble();
        if (!(std::abs(number) <= MAX_NUMBER))
            refuse("holds a number that is too large");
        return number;
    }

    const Value& _value;
    std::string _path;
};

constexpr std::size_t MAX_HOSTS = 100000;
constexpr std::size_t MAX_PROCESSORS = 65536;
constexpr std::size_t MAX_LIST = 100000; ///< events, steps, bills, options, points of time
constexpr std::size_t MAX_PARTNERS = 2000;

std::string textIn(const Place& place, const char* key) {
    const auto found = place.find(key);
    return found ? found->text() : std::string();
}
double numberIn(const Place& place, const char* key) {
    const auto found = place.find(key);
    return found ? found->number() : 0.0;
}
double positiveIn(const Place& place, const char* key) {
    const auto found = place.find(key);
    const double number = found ? found->number() : 0.0;
    if (number < 0.0)
        found->refuse("is negative");
    return number;
}
bool truthIn(const Place& place, const char* key) {
    const auto found = place.find(key);
    return found && found->truth();
}
std::vector<Place> elementsIn(const Place& place, const char* key, std::size_t maxCount = MAX_LIST) {
    const auto found = place.find(key);
    return found ? found->elements(maxCount) : std::vector<Place>();
}
std::vector<double> numbersIn(const Place& place, const char* key, std::size_t maxCount = MAX_LIST) {
    const auto found = place.find(key);
    return found ? found->numbers(maxCount) : std::vector<double>();
}
std::vector<double> perRankIn(const Place& place, const char* key, std::size_t ranks) {
    const auto found = place.find(key);
    std::vector<double> list = found ? found->numbersOf(ranks, "ranks") : std::vector<double>();
    for (const double number : list)
        if (number < 0.0)
            found->refuse("holds a negative number");
    return list;
}

std::vector<long> toIntegers(const Place& place, std::size_t maxCount) {
    std::vector<long> integers;
    for (const double number : place.numbers(maxCount)) {
        if (number != std::floor(number) || number < -1.0 || number > 1e9)
            place.refuse("holds a number that is no processor, core, node or socket");
        integers.push_back(static_cast<long>(number));
    }
    return integers;
}
std::vector<long> integersIn(const Place& place, const char* key, std::size_t count) {
    const auto found = place.find(key);
    std::vector<long> list = found ? toIntegers(*found, MAX_PROCESSORS) : std::vector<long>();
    if (list.empty()) // not known: all in one
        list.assign(count, 0);
    if (list.size() != count)
        found->refuse("has " + std::to_string(list.size()) + " entries for " + std::to_string(count) +
                      " processors");
    return list;
}

ReportData::Affinity readAffinity(const Place& place) {
    ReportData::Affinity affinity;
    if (const auto processors = place.find("processors"))
        affinity.processors = toIntegers(*processors, MAX_PROCESSORS);
    const std::size_t count = affinity.processors.size();
    affinity.cores = integersIn(place, "cores", count);
    affinity.numa = integersIn(place, "numa", count);
    affinity.sockets = integersIn(place, "sockets", count);
    for (const Place& mask : elementsIn(place, "ofRank", ReportData::MAX_RANKS))
        affinity.ofRank.push_back(toIntegers(mask, MAX_PROCESSORS));
    return affinity;
}

void readHosts(const Place& root, ReportData& data) {
    for (const Place& place : elementsIn(root, "hosts", MAX_HOSTS)) {
        ReportData::Host host;
        host.name = textIn(place, "name");
        host.cores = positiveIn(place, "cores");
        host.memory = positiveIn(place, "memory");
        for (const Place& rank : elementsIn(place, "ranks", data.ranks))
            host.ranks.push_back(rank.index(data.ranks));
        if (const auto affinity = place.find("affinity"))
            host.affinity = readAffinity(*affinity);
        if (host.affinity.ofRank.size() > host.ranks.size())
            place.refuse("has more masks than ranks");
        data.hosts.push_back(std::move(host));
    }
    if (const auto places = root.find("rankHost")) {
        for (const double host : places->numbersOf(data.ranks, "ranks")) {
            if (host != std::floor(host) || host < 0.0 || host >= static_cast<double>(data.hosts.size()))
                places->refuse("names a host that isn't listed");
            data.rankHost.push_back(static_cast<std::size_t>(host));
        }
    }
}

void readSpans(const Place& place, ReportData& data) {
    data.seconds = positiveIn(place, "seconds");
    data.waiting = perRankIn(place, "waiting", data.ranks);
    data.processor = perRankIn(place, "processor", data.ranks);
    data.memory = perRankIn(place, "memory", data.ranks);
    data.peakMemory = perRankIn(place, "peakMemory", data.ranks);
    data.messageCount = perRankIn(place, "messages", data.ranks);
    data.bytes = perRankIn(place, "bytes", data.ranks);
}

/// Refuses a chain of parents without an end.
void checkParents(const Place& place, const std::vector<ReportData::Event>& events) {
    std::vector<std::size_t> mark(events.size(), 0); // the walk that came by
    for (std::size_t first = 0; first < events.size(); ++first) {
        long event = static_cast<long>(first);
        while (event >= 0 && mark[static_cast<std::size_t>(event)] == 0) {
            mark[static_cast<std::size_t>(event)] = first + 1;
            event = events[static_cast<std::size_t>(event)].parent;
        }
        if (event >= 0 && mark[static_cast<std::size_t>(event)] == first + 1)
            place.refuse("has events that are their own parents");
    }
}

void readEvents(const Place& place, ReportData& data) {
    data.hasEvents = truthIn(place, "on");
    const std::vector<Place> list = elementsIn(place, "list");
    for (const Place& each : list) {
        ReportData::Event event;
        event.name = textIn(each, "name");
        if (const auto parent = each.find("parent"))
            event.parent = parent->integer(-1, static_cast<long>(list.size()) - 1);
        event.count = perRankIn(each, "count", data.ranks);
        event.seconds = perRankIn(each, "seconds", data.ranks);
        if (event.seconds.empty()) // a short document must not become large here
            each.refuse("has no seconds");
        event.open = truthIn(each, "open");
        data.events.push_back(std::move(event));
    }
    checkParents(place, data.events);
}

void readPartners(const Place& place, ReportData& data) {
    data.partners.byHost = truthIn(place, "byHost");
    const std::vector<Place> rows = elementsIn(place, "counts", MAX_PARTNERS);
    if (!rows.empty() && rows.size() != (data.partners.byHost ? data.hosts.size() : data.ranks))
        place.refuse("has " + std::to_string(rows.size()) + " rows, another number than there are partners");
    for (const Place& row : rows)
        data.partners.counts.push_back(row.numbersOf(rows.size(), "partners"));
    for (std::vector<double>& row : data.partners.counts)
        row.resize(rows.size());
}

void readMessages(const Place& place, ReportData& data) {
    constexpr std::size_t MAX_CLASSES = 32;
    data.hasMessages = truthIn(place, "on");
    data.sizeClasses = numbersIn(place, "classes", MAX_CLASSES);
    for (const Place& each : elementsIn(place, "operations")) {
        ReportData::Operation operation;
        operation.name = textIn(each, "name");
        operation.kind = textIn(each, "kind");
        operation.count = numbersIn(each, "count", MAX_CLASSES);
        operation.seconds = numbersIn(each, "seconds", MAX_CLASSES);
        operation.seconds.resize(operation.count.size());
        data.operations.push_back(std::move(operation));
    }
    if (const auto partners = place.find("partners"))
        readPartners(*partners, data);
}

void readMemory(const Place& place, ReportData& data) {
    data.hasMemory = truthIn(place, "on");
    data.memoryTimes = numbersIn(place, "times");
    for (const Place& each : elementsIn(place, "hosts", MAX_HOSTS)) {
        ReportData::MemoryOfHost host;
        if (const auto index = each.find("host"))
            host.host = index->index(data.hosts.size());
        host.resident = numbersIn(each, "resident");
        host.max = numbersIn(each, "max");
        if (host.resident.size() != data.memoryTimes.size())
            each.refuse("has another number of values than there are times");
        data.memoryOfHosts.push_back(std::move(host));
    }
}

ReportData::Figure figureIn(const Place& bill, const char* key, std::size_t ranks) {
    ReportData::Figure figure;
    const auto place = bill.find(key);
    if (!place)
        return figure;
    figure.total = numberIn(*place, "total");
    figure.min = numberIn(*place, "min");
    figure.mean = numberIn(*place, "mean");
    figure.max = numberIn(*place, "max");
    if (const auto rank = place->find("minRank"))
        figure.minRank = rank->index(ranks);
    if (const auto rank = place->find("maxRank"))
        figure.maxRank = rank->index(ranks);
    return figure;
}

ReportData::Bill readBill(const Place& place, std::size_t ranks) {
    ReportData::Bill bill;
    bill.command = textIn(place, "command");
    bill.client = textIn(place, "client");
    bill.began = numberIn(place, "began");
    bill.wall = positiveIn(place, "wall");
    bill.ranks = positiveIn(place, "ranks");
    bill.failed = truthIn(place, "failed");
    bill.processor = figureIn(place, "processor", ranks);
    bill.waiting = figureIn(place, "waiting", ranks);
    bill.peakMemory = figureIn(place, "peakMemory", ranks);
    bill.messages = figureIn(place, "messages", ranks);
    bill.bytes = figureIn(place, "bytes", ranks);
    return bill;
}

ReportData::Step readStep(const Place& place, std::size_t ranks) {
    ReportData::Step step{textIn(place, "step"), positiveIn(place, "at"), positiveIn(place, "seconds"),
                          positiveIn(place, "max"), 0};
    if (const auto rank = place.find("maxRank"))
        step.maxRank = rank->index(ranks);
    return step;
}

void readRoot(const Place& root, ReportData& data) {
    if (textIn(root, "format") != "orvex-profile")
        throw InputError("This is no profile: it has no \"format\" with the value \"orvex-profile\"");
    if (numberIn(root, "version") != 1.0)
        throw InputError("The profile has version " + std::to_string(std::lround(numberIn(root, "version"))) +
                         "; this orvexctl knows version 1");
    data.written = numberIn(root, "written");
    for (const auto& [key, text] : {std::pair<const char*, std::string*>{"product", &data.product},
                                    {"session", &data.session},
                                    {"commandLine", &data.commandLine},
                                    {"build", &data.build},
                                    {"mpi", &data.mpi}})
        *text = textIn(root, key);
    const auto ranks = root.find("ranks");
    if (!ranks)
        root.refuse("doesn't tell the number of ranks");
    data.ranks = static_cast<std::size_t>(ranks->integer(1, static_cast<long>(ReportData::MAX_RANKS)));
    readHosts(root, data);
    for (const Place& step : elementsIn(root, "start"))
        data.start.push_back(readStep(step, data.ranks));
    for (const Place& warning : elementsIn(root, "warnings"))
        data.warnings.push_back(warning.text());
    for (const auto& [key, read] :
         {std::pair<const char*, void (*)(const Place&, ReportData&)>{"spans", readSpans},
          {"events", readEvents},
          {"messages", readMessages},
          {"memory", readMemory}})
        if (const auto part = root.find(key))
            read(*part, data);
    for (const Place& bill : elementsIn(root, "bills"))
        data.bills.push_back(readBill(bill, data.ranks));
    if (const auto options = root.find("options"))
        data.options = options->texts(MAX_LIST);
}

} // namespace

ReportData ReportData::parse(std::string_view json) {
    if (json.size() > MAX_SIZE)
        throw InputError("The profile is larger than " + std::to_string(MAX_SIZE >> 20) + " MiB");
    rapidjson::Document document;
    document.Parse<PARSE_FLAGS>(json.data(), json.size());
    if (document.HasParseError())
        throw InputError("This is no profile: at byte " + std::to_string(document.GetErrorOffset()) + ": " +
                         rapidjson::GetParseError_En(document.GetParseError()));
    if (!document.IsObject())
        throw InputError("This is no profile: it isn't a JSON object");
    ReportData data;
    readRoot(Place(document, ""), data);
    return data;
}

std::string ReportData::hostOf(std::size_t rank) const {
    return rank < rankHost.size() ? hosts[rankHost[rank]].name : std::string();
}
