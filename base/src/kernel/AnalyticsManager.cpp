#include "kernel/AnalyticsManager.h"

#include "kernel/AnalyticsEvent.h"
#include "kernel/Properties.h"
#include "platform/FileSystem.h"
#include "platform/Log.h"
#include "platform/Time.h"

#include <utility>

namespace Analytics {

namespace {

/// The lines at the end of `record` that leave room for `addition` bytes within the bound.
std::string dropOldest(const std::string& record, std::size_t addition) {
    if (record.size() + addition <= Manager::MAX_RECORD_SIZE)
        return record;
    // Half at once, so that not every event rewrites all of the record.
    const std::size_t end = record.find('\n', record.size() - Manager::MAX_RECORD_SIZE / 2);
    return end == std::string::npos ? std::string() : record.substr(end + 1);
}

} // namespace

Manager::Manager(std::string productKey, std::string releaseNumber, bool developmentVersion,
                 std::wstring path)
    : _productKey(std::move(productKey)), _releaseNumber(std::move(releaseNumber)),
      _developmentVersion(developmentVersion), _path(std::move(path)) {}

Manager::~Manager() = default;

void Manager::logEvent(Event& event) {
    if (!isInitialized())
        return;
    Properties line;
    line.set("Time", Platform::time().formatUtc("%Y-%m-%dT%H:%M:%SZ"));
    line.set("Product", _productKey);
    line.set("Release", _releaseNumber);
    line.set("DevelopmentVersion", _developmentVersion);
    line.set("Event", event.getName());
    line.set("Attributes", event.getAttributes());
    const std::string text = line.toString() + "\n";

    Platform::FileSystem& files = Platform::filesystem();
    std::string record;
    // A record beyond the bound isn't ours any more: it starts anew.
    if (!files.readFile(_path, record, MAX_RECORD_SIZE))
        record.clear();
    const std::wstring directory = _path.substr(0, _path.rfind(files.getSeparator()));
    if (text.size() <= MAX_RECORD_SIZE / 2 && files.makeDirectories(directory) &&
        files.writePrivateFile(_path, dropOldest(record, text.size()) + text))
        return;
    OS::Log::instance("Default").info("Analytics::Manager::logEvent", "@0@ can't be written", _path);
    _path.clear();
}

} // namespace Analytics
