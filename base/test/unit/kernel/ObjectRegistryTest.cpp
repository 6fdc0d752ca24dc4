#include "kernel/ObjectRegistry.h"

#include "kernel/ClientServerObject.h"
#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

TEST(ObjectRegistry, HoldsTheObjectsWhileTheyLive) {
    ObjectRegistry& registry = ObjectRegistry::getSingleton();
    auto* const mesh = new ClientServerObject("mesh", 1LL << 40, "The mesh");
    auto* const boundary = new ClientServerObject("boundary", -7, "A boundary", mesh);
    std::vector<std::string> keys;
    for (const auto& [key, object] : registry)
        keys.push_back(key + '=' + object->getDescription());
    EXPECT_EQ(keys, (std::vector<std::string>{"boundary=A boundary", "mesh=The mesh"}));
    EXPECT_EQ(registry.hasObject("mesh"), mesh);
    EXPECT_EQ(registry.hasObject(1LL << 40), mesh);
    EXPECT_EQ(registry.hasObject(0), nullptr);
    EXPECT_EQ(boundary->getParent(), mesh);

    const struct {
        const char* key;
        long long id;
        const char* message;
    } refused[] = {
        {"mesh", 2, "ObjectRegistry: there is an object with the key mesh already"},
        {"other", -7,
         "ObjectRegistry: the object with the key boundary has the id -7 of the new object other"},
        {"", 2, "ObjectRegistry: an object needs a key"},
    };
    for (const auto& row : refused) {
        EXPECT_EQ(messageOf<InternalError>([&] { new ClientServerObject(row.key, row.id, "refused"); }),
                  row.message);
        EXPECT_EQ(registry.size(), 2u);
    }

    CoreObject::destroy(mesh);
    EXPECT_EQ(boundary->getParent(), nullptr);
    EXPECT_EQ(registry.hasObject("mesh"), nullptr);
    CoreObject::destroy(new ClientServerObject("mesh", 1LL << 40, "The next mesh", boundary));
    CoreObject::destroy(boundary);
    EXPECT_EQ(registry.size(), 0u);
}
