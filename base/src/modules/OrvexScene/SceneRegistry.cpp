#include "modules/OrvexScene/SceneRegistry.h"

#include "kernel/Raise.h"

#include <algorithm>

SceneRegistry& SceneRegistry::getSingleton() {
    static SceneRegistry registry;
    return registry;
}

void SceneRegistry::create(const std::string& name, const std::string& title) {
    if (name.empty())
        raise(InputError("A scene needs a name, but \"name\" is empty"));
    if (find(name) != _scenes.end())
        raise(InputError("There is a scene \"" + name + "\" already"));
    _scenes.push_back({name, title.empty() ? name : title});
}

void SceneRegistry::remove(const std::string& name) {
    const auto scene = find(name);
    if (scene == _scenes.end())
        raise(InputError("There is no scene \"" + name + "\""));
    _scenes.erase(scene);
}

std::vector<SceneRegistry::Scene>::const_iterator SceneRegistry::find(const std::string& name) const {
    return std::find_if(_scenes.begin(), _scenes.end(),
                        [&](const Scene& scene) { return scene.name == name; });
}
