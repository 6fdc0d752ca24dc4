#pragma once

#include <string>
#include <vector>

/// The scenes of this process by name. Every rank keeps the same ones, since the commands that change them
/// run on all ranks. Main thread.
class SceneRegistry {
public:
    struct Scene {
        std::string name;
        std::string title; ///< for people; the name where none was given
    };

    static SceneRegistry& getSingleton();

    /// @throw InputError when the name is empty or taken
    void create(const std::string& name, const std::string& title);
    /// @throw InputError when there is no such scene
    void remove(const std::string& name);
    /// In the order of their creation.
    const std::vector<Scene>& getScenes() const { return _scenes; }

private:
    SceneRegistry() = default;
    std::vector<Scene>::const_iterator find(const std::string& name) const;

    std::vector<Scene> _scenes;
};
