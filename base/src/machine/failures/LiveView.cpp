#include "machine/failures/LiveView.h"

#include "machine/MachineGround.h"
#include "machine/MachineHost.h"
#include "machine/failures/ParallelErrorHandler.h"

#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/Time.h"
#include "xmlrpc/XmlRpcFanOut.h"
#include "xmlrpc/XmlRpcServerMethod.h"
#include "xmlrpc/XmlRpcValue.h"

#include <algorithm>
#include <map>
#include <utility>

using XmlRpc::XmlRpcFanOut;
using XmlRpc::XmlRpcServerMethod;
using XmlRpc::XmlRpcValue;

namespace {

constexpr const char* LIVE = "Live";
constexpr double ANSWER_TIME = 1.0; ///< [s] of one host
constexpr double TOTAL_TIME = 2.0;  ///< [s] of all
constexpr double FIRST_TIME = 0.15; ///< [s] that the shares of a first look cover

std::vector<RankSource::Process> processesHere() {
    std::vector<RankSource::Process> processes;
    if (MachineGround::isSerial()) {
        processes.push_back({0, Platform::process().getPid()});
        return processes;
    }
    const MachineHost& host = MachineGround::getHost();
    const auto [begin, end] = host.getHostPidMap().equal_range(host.getHostName());
    for (auto each = begin; each != end; ++each)
        processes.push_back({each->second.second, static_cast<int>(each->second.first)});
    return processes;
}

} // namespace

/// Answers what the ranks of this host do.
class LiveView::LiveCmd : public XmlRpcServerMethod {
public:
    explicit LiveCmd(LiveView& view) : XmlRpcServerMethod(LIVE), _view(view) {}
    void execute(const XmlRpcValue& parameters, XmlRpcValue& result) override {
        const bool withList = parameters.getArray().at(0).getBool();
        result = XmlRpcValue::fromXml("<value>" + _view.lookHere(withList).toProperties().toXml());
    }

private:
    LiveView& _view;
};

LiveView::LiveView(ParallelErrorHandler* channel)
    : _channel(channel), _watch(MachineGround::getHost().getHostName(), processesHere()) {
    std::map<std::string, Host> hosts;
    for (const auto& [name, process] : MachineGround::getHost().getHostPidMap()) {
        hosts[name].name = name;
        hosts[name].ranks.push_back({process.second, static_cast<int>(process.first)});
    }
    for (auto& [name, host] : hosts)
        _hosts.push_back(std::move(host));
    std::sort(_hosts.begin(), _hosts.end(),
              [](const Host& a, const Host& b) { return a.ranks.front().rank < b.ranks.front().rank; });
    if (!_channel)
        return;
    _method = std::make_unique<LiveCmd>(*this);
    _channel->addMethod(*_method);
}

LiveView::~LiveView() = default;

LiveHost LiveView::lookHere(bool withList) {
    const std::lock_guard lock(_mutex);
    return _watch.look(withList);
}

Properties LiveView::answer(const Properties& request) {
    bool withList = request.getOr("ranks", false);
    std::vector<const Host*> hosts;
    const std::string wanted = request.getOr("host", "");
    for (const Host& host : _hosts)
        if (wanted.empty() || host.name == wanted)
            hosts.push_back(&host);
    if (hosts.empty())
        raise(InputError("This job has no ranks on a host \"" + wanted + "\""));
    withList = !wanted.empty() || (withList && MachineGround::nProcesses() <= MAX_LISTED);
    LiveJob job = look(hosts, withList);
    const bool isFirst = std::any_of(job.hosts.begin(), job.hosts.end(), [](const LiveHost& host) {
        return host.silence.empty() && host.seconds == 0.0;
    });
    if (isFirst) {
        Platform::time().sleep(FIRST_TIME);
        job = look(hosts, withList);
    }
    job.isListed = withList;
    return job.toProperties();
}

/// A host is asked by its first rank, and when that doesn't answer, by its last one.
LiveJob LiveView::look(const std::vector<const Host*>& hosts, bool withList) {
    std::vector<unsigned> ranks;
    ranks.reserve(hosts.size());
    for (const Host* host : hosts)
        ranks.push_back(host->ranks.front().rank);
    std::vector<std::optional<LiveHost>> answers = ask(hosts, ranks, withList);
    std::vector<const Host*> silent;
    std::vector<unsigned> others;
    for (std::size_t i = 0; i < hosts.size(); ++i)
        if (!answers[i] && hosts[i]->ranks.size() > 1) {
            silent.push_back(hosts[i]);
            others.push_back(hosts[i]->ranks.back().rank);
        }
    std::vector<std::optional<LiveHost>> more = ask(silent, others, withList);
    std::vector<LiveHost> looks;
    std::size_t next = 0;
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        if (!answers[i] && hosts[i]->ranks.size() > 1)
            answers[i] = std::move(more[next++]);
        looks.push_back(answers[i] ? std::move(*answers[i]) : makeSilent(*hosts[i]));
    }
    return LiveJob::fold(std::move(looks));
}

/// @param ranks  whom to ask, one of each host
std::vector<std::optional<LiveHost>> LiveView::ask(const std::vector<const Host*>& hosts,
                                                   const std::vector<unsigned>& ranks, bool withList) {
    std::vector<std::optional<LiveHost>> looks(hosts.size());
    std::vector<XmlRpcFanOut::Call> calls;
    std::vector<std::size_t> asked;
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        if (ranks[i] == MachineGround::getPartitionId() || !_channel) {
            looks[i] = lookHere(withList);
            continue;
        }
        const ParallelErrorHandler::Place& place = _channel->getPlaces()[ranks[i]];
        calls.push_back(
            {place.host, place.port, LIVE, XmlRpcValue(XmlRpcValue::Array{XmlRpcValue(withList)})});
        asked.push_back(i);
    }
    if (calls.empty())
        return looks;
    XmlRpcFanOut fanOut;
    fanOut.setSecret(_channel->getSecret());
    const std::vector<XmlRpcFanOut::Answer> answers = fanOut.call(calls, TOTAL_TIME, ANSWER_TIME);
    for (std::size_t i = 0; i < answers.size(); ++i)
        try {
            if (answers[i].answered)
                looks[asked[i]] = LiveHost::fromProperties(Properties::fromXml(answers[i].result.toXml()));
        } catch (const std::exception& error) {
            OS::Log::instance("Default").warning("LiveView::ask", "@0@: @1@", hosts[asked[i]]->name,
                                                 error.what());
        }
    return looks;
}

LiveHost LiveView::makeSilent(const Host& host) const {
    std::vector<unsigned> ranks;
    for (const RankSource::Process& process : host.ranks)
        ranks.push_back(process.rank);
    return LiveHost::makeSilent(host.name, ranks, "it doesn't answer");
}
