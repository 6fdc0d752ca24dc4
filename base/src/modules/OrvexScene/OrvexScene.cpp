// The commands of the scenes.

#include "modules/OrvexScene/SceneRegistry.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Module.h"
#include "kernel/Properties.h"

namespace {

constexpr const char* NAME_KEY = "name";
constexpr const char* TITLE_KEY = "title";

class CreateScene : public NoResultCommand {
public:
    using NoResultCommand::execute;
    CreateScene()
        : NoResultCommand({"Makes a scene.",
                           {{NAME_KEY, "text", "its name, which no other scene has"},
                            {TITLE_KEY, "text", "its title for people; its name by default", false}},
                           {}}) {}
    std::string getName() const override { return "CreateScene"; }
    void execute(const Properties& args) override {
        SceneRegistry::getSingleton().create(args.getString(NAME_KEY), args.getOr(TITLE_KEY, ""));
    }
};

class DeleteScene : public NoResultCommand {
public:
    using NoResultCommand::execute;
    DeleteScene() : NoResultCommand({"Deletes a scene.", {{NAME_KEY, "text", "its name"}}, {}}) {}
    std::string getName() const override { return "DeleteScene"; }
    void execute(const Properties& args) override {
        SceneRegistry::getSingleton().remove(args.getString(NAME_KEY));
    }
};

class GetSceneInformation : public QueryCommand {
public:
    GetSceneInformation()
        : QueryCommand({"Lists the scenes in the order of their creation.",
                        {},
                        {{"Number of Scenes", "unsigned", "how many there are"},
                         {"scenes", "vector of properties", "\"name\" and \"title\" of each"}}}) {}
    std::string getName() const override { return "GetSceneInformation"; }
    void execute(const Properties&, Properties& response) override {
        std::vector<Properties> scenes;
        for (const SceneRegistry::Scene& scene : SceneRegistry::getSingleton().getScenes()) {
            Properties entry;
            entry.set(NAME_KEY, scene.name);
            entry.set(TITLE_KEY, scene.title);
            scenes.push_back(entry);
        }
        response.set("Number of Scenes", scenes.size());
        response.set("scenes", scenes);
    }
};

} // namespace

ORVEX_MODULE_ENTRY() {
    Controller& controller = Controller::getSingleton();
    controller.registerCommand(new CreateScene);
    controller.registerCommand(new DeleteScene);
    controller.registerCommand(new GetSceneInformation);
}
