#include "client/CommandWords.h"

#include <gtest/gtest.h>

namespace {

std::string params(const std::string& line, const std::vector<CommandWords::KeyType>& types = {}) {
    return CommandWords::toParams(CommandWords::split(line), types);
}

TEST(CommandWords, guessesTypesWithoutHelp) {
    const struct {
        const char* line;
        const char* json;
    } rows[] = {
        {"", "{}"},
        {"  # only a comment", "{}"},
        {"a=true b=false c=True", R"({"a":true,"b":false,"c":"True"})"},
        {"a=1 b=-7 c=007 d=18446744073709551615 e=99999999999999999999",
         R"({"a":1,"b":-7,"c":"007","d":18446744073709551615,"e":1e+20})"},
        {"a=1.5 b=1. c=.5 d=1e3 e=-2E-3 f=1.5.2 g=- h=nan",
         R"({"a":1.5,"b":1.0,"c":0.5,"d":1000.0,"e":-0.002,"f":"1.5.2","g":"-","h":"nan"})"},
        {"a=", R"({"a":""})"},
        {"a=x=y", R"({"a":"x=y"})"},
        {"path=/data/a#b", R"({"path":"/data/a#b"})"},
        {"a=\"1\" b='true' c=\"x \\\" y\" d=a\\ b", R"({"a":"1","b":"true","c":"x \" y","d":"a b"})"},
        {"a=[1, 2] b={\"x\": [\"}\", \"\\\"\"]} c=3", R"({"a":[1, 2],"b":{"x": ["}", "\""]},"c":3})"},
        {"a:=5 b:=\"t u\" c:=null", R"({"a":5,"b":"t u","c":null})"},
        {"a=ä", "{\"a\":\"ä\"}"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(params(row.line), row.json) << row.line;
    // words of a command line, where the shell has taken the quotes away
    EXPECT_EQ(CommandWords::toParams({{"a=\"1\""}, {"b=x y"}}, {}), R"({"a":"1","b":"x y"})");
}

TEST(CommandWords, followsTheHelp) {
    const std::vector<CommandWords::KeyType> types{
        {"t", "text"},           {"b", "bool"},           {"i", "int"}, {"r", "real"}, {"p", "properties"},
        {"vi", "vector of int"}, {"vt", "vector of text"}};
    const struct {
        const char* line;
        const char* json;
    } rows[] = {
        {"t=1", R"({"t":"1"})"},
        {"t=true", R"({"t":"true"})"},
        {"t=[1]", R"({"t":"[1]"})"},
        {"i=007", R"({"i":7})"},
        {"i=-0", R"({"i":0})"},
        {"r=2", R"({"r":2.0})"},
        {"r=inf", R"({"r":{"$real":"inf"}})"},
        {"p={\"a\":1}", R"({"p":{"a":1}})"},
        {"vi=1,2,3", R"({"vi":[1,2,3]})"},
        {"vi=", R"({"vi":[]})"},
        {"vi=[4]", R"({"vi":[4]})"},
        {"vt=a,1", R"({"vt":["a","1"]})"},
        {"unknown=5", R"({"unknown":5})"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(params(row.line, types), row.json) << row.line;
}

TEST(CommandWords, saysWhatIsWrong) {
    const std::vector<CommandWords::KeyType> types{
        {"b", "bool"}, {"i", "int"}, {"r", "real"}, {"vi", "vector of int"}};
    const struct {
        const char* line;
        const char* part;
    } rows[] = {
        {"word", "\"word\" isn't an argument"},
        {"=5", "isn't an argument"},
        {"a=1 a=2", "\"a\" is given twice"},
        {"a=\"x", "within a quote"},
        {"a=[1", "within a quote or a bracket"},
        {"a:={]", "isn't JSON"},
        {"a:=x", "\"a\" isn't JSON"},
        {"b=1", "true or false"},
        {"i=1.5", "an integer"},
        {"i=99999999999999999999", "an integer"},
        {"r=x", "a number"},
        {"vi=1,x", "an integer, not \"x\""},
    };
    for (const auto& row : rows) {
        try {
            ADD_FAILURE() << row.line << " gave " << params(row.line, types);
        } catch (const UsageError& error) {
            EXPECT_NE(std::string(error.what()).find(row.part), std::string::npos) << error.what();
        }
    }
}

} // namespace
