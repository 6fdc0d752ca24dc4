#include "kernel/server/SessionRecord.h"

#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "kernel/server/SessionKey.h"

#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/System.h"

namespace {

/// Calls `work` with the key and the value of each field that any client may see.
template <class Record, class Work>
void visitPublicFields(Record& record, const Work& work) {
    work("name", record.name);
    work("host", record.host);
    work("address", record.address);
    work("port", record.port);
    work("pid", record.pid);
    work("ranks", record.ranks);
    work("startTime", record.startTime);
    work("user", record.user);
    work("product", record.product);
    work("protocol", record.protocol);
}

/// The same for the fields that the file alone holds.
template <class Record, class Work>
void visitPrivateFields(Record& record, const Work& work) {
    work("startStamp", record.startStamp);
    work("boot", record.boot);
    work("pidNamespace", record.pidNamespace);
    work("listed", record.listed);
    work("key", record.key);
}

/// Takes each field over to the properties.
struct Setter {
    Properties& properties;
    void operator()(const char* key, const auto& value) const { properties.set(key, value); }
};

bool isOptional(std::string_view key) {
    return key == "boot" || key == "pidNamespace";
}

} // namespace

Properties SessionRecord::describe() const {
    Properties properties;
    visitPublicFields(*this, Setter{properties});
    return properties;
}

std::string SessionRecord::toText() const {
    Properties properties = describe();
    visitPrivateFields(*this, Setter{properties});
    return properties.toPrettyString() + "\n";
}

std::optional<SessionRecord> SessionRecord::fromText(const std::string& text) {
    try {
        const Properties properties{std::string_view(text)};
        SessionRecord record;
        const auto read = [&](const char* field, auto& value) {
            if (isOptional(field) && !properties.hasName(field))
                return;
            if constexpr (std::is_same_v<decltype(value), unsigned long long&>)
                value = properties.getUnsignedLong(field);
            else
                properties.get(field, value);
        };
        visitPublicFields(record, read);
        visitPrivateFields(record, read);
        if (record.port > 65535 || record.pid <= 0 || !SessionKey::fromHex(record.key))
            return std::nullopt;
        return record;
    } catch (const Error&) {
        return std::nullopt;
    }
}

bool SessionRecord::isVisible() const {
    return startStamp != 0 && !boot.empty() && boot == Platform::system().getBootId() && pidNamespace != 0 &&
           pidNamespace == Platform::process().getPidNamespace();
}

bool SessionRecord::isAliveHere() const {
    return isVisible() && Platform::process().isAlive(pid) &&
           Platform::process().getStartStamp(pid) == startStamp;
}

bool SessionRecord::isOnThisHost() const {
    return host == Platform::io().getHostName() || isVisible();
}

bool SessionRecord::isLoopback() const {
    return address == "localhost" || address == "::1" || address.starts_with("127.");
}
