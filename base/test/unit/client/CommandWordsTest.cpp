#include "client/CommandWords.h"

#include <gtest/gtest.h>

namespace {

using Rows = std::initializer_list<std::pair<const char*, const char*>>;

std::string params(const std::string& line, const std::vector<CommandWords::KeyType>& types = {}) {
    return CommandWords::toParams(CommandWords::split(line), types);
}

TEST(CommandWords, GuessesTypesWithoutHelp) {
    const Rows rows{
        {"", "{}"},
        {"  # only a comment", "{}"},
        {"a=true b=false c=True", R"({"a":true,"b":false,"c":"True"})"},
        {"a=1 b=-7 c=007 d=18446744073709551615 e=99999999999999999999",
         R"({"a":1,"b":-7,"c":"007","d":18446744073709551615,"e":1e+20})"},
        {"a=1.5 b=1. c=.5 d=1e3 e=-2E-3 f=1.5.2 g=- h=nan",
         R"({"a":1.5,"b":1.0,"c":0.5,"d":1000.0,"e":-0.002,"f":"1.5.2","g":"-","h":"nan"})"},
        {"a=x=y b=", R"({"a":"x=y","b":""})"},
        {"path=/data/a#b", R"({"path":"/data/a#b"})"},
        {"a=\"1\" b='true' c=\"x \\\" y\" d=a\\ b", R"({"a":"1","b":"true","c":"x \" y","d":"a b"})"},
        {"a=[1, 2] b={\"x\": [\"}\", \"\\\"\"]} c=3", R"({"a":[1, 2],"b":{"x": ["}", "\""]},"c":3})"},
        {"a:=5 b:=\"t u\" c:=null", R"({"a":5,"b":"t u","c":null})"},
        {"a=ä", "{\"a\":\"ä\"}"},
    };
    for (const auto& [line, json] : rows)
        EXPECT_EQ(params(line), json) << line;
    // words of a command line, where the shell has taken the quotes away
    EXPECT_EQ(CommandWords::toParams({{"a=\"1\""}, {"b=x y"}}, {}), R"({"a":"1","b":"x y"})");
}

TEST(CommandWords, FollowsTheHelp) {
    const std::vector<CommandWords::KeyType> types{
        {"t", "text"},           {"b", "bool"},           {"i", "int"}, {"r", "real"}, {"p", "properties"},
        {"vi", "vector of int"}, {"vt", "vector of text"}};
    const Rows rows{
        {"t=true b=true", R"({"t":"true","b":true})"},
        {"t=[1]", R"({"t":"[1]"})"},
        {"i=007 r=2", R"({"i":7,"r":2.0})"},
        {"i=-0 r=inf", R"({"i":0,"r":{"$real":"inf"}})"},
        {"p={\"a\":1}", R"({"p":{"a":1}})"},
        {"vi=1,2,3 vt=a,1", R"({"vi":[1,2,3],"vt":["a","1"]})"},
        {"vi= vt=[4]", R"({"vi":[],"vt":[4]})"},
        {"unknown=5", R"({"unknown":5})"},
    };
    for (const auto& [line, json] : rows)
        EXPECT_EQ(params(line, types), json) << line;
}

TEST(CommandWords, SaysWhatIsWrong) {
    const std::vector<CommandWords::KeyType> types{
        {"b", "bool"}, {"i", "int"}, {"r", "real"}, {"vi", "vector of int"}};
    const Rows rows{
        {"word", "\"word\" isn't an argument"},
        {"=5", "isn't an argument"},
        {"a=1 a=2", "\"a\" is given twice"},
        {"a=\"x", "within a quote"},
        {"a:=x", "\"a\" isn't JSON: Invalid value"},
        {"b=1", "true or false"},
        {"i=1.5", "an integer"},
        {"i=99999999999999999999", "an integer"},
        {"r=x", "a number"},
        {"vi=1,x", "an integer, not \"x\""},
    };
    for (const auto& [line, part] : rows) {
        try {
            ADD_FAILURE() << line << " gave " << params(line, types);
        } catch (const UsageError& error) {
            EXPECT_NE(std::string(error.what()).find(part), std::string::npos) << error.what();
        }
    }
}

} // namespace
