#include "kernel/server/SessionRecord.h"

#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "kernel/server/SessionKey.h"

#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/System.h"

Properties SessionRecord::describe() const {
    Properties properties;
    properties.set("name", name);
    properties.set("host", host);
    properties.set("address", address);
    properties.set("port", port);
    properties.set("pid", pid);
    properties.set("ranks", ranks);
    properties.set("startTime", startTime);
    properties.set("user", user);
    properties.set("product", product);
    properties.set("protocol", protocol);
    return properties;
}

std::string SessionRecord::toText() const {
    Properties properties = describe();
    properties.set("startStamp", startStamp);
    properties.set("boot", boot);
    properties.set("pidNamespace", pidNamespace);
    properties.set("listed", listed);
    properties.set("key", key);
    return properties.toPrettyString() + "\n";
}

std::optional<SessionRecord> SessionRecord::fromText(const std::string& text) {
    try {
        const Properties properties{std::string_view(text)};
        SessionRecord record;
        record.name = properties.getString("name");
        record.host = properties.getString("host");
        record.address = properties.getString("address");
        record.port = properties.getUnsignedInt("port");
        record.pid = properties.getInt("pid");
        record.startStamp = properties.getUnsignedLong("startStamp");
        if (properties.hasName("boot"))
            record.boot = properties.getString("boot");
        if (properties.hasName("pidNamespace"))
            record.pidNamespace = properties.getUnsignedLong("pidNamespace");
        record.ranks = properties.getUnsignedInt("ranks");
        record.startTime = properties.getReal("startTime");
        record.user = properties.getString("user");
        record.product = properties.getString("product");
        record.protocol = properties.getUnsignedInt("protocol");
        record.listed = properties.getBool("listed");
        record.key = properties.getString("key");
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
