#include "client/ResponsePrinter.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

TEST(ResponsePrinter, AlignsForPeople) {
    for (const auto& [json, text] : std::initializer_list<std::pair<const char*, const char*>>{
             {"{}", ""},
             {R"({"a":1,"long":"text","b":true,"n":null,"r":{"$real":"-inf"},"hidden":5})",
              "a     1\nlong  text\nb     true\nn     \nr     -inf\n"},
             {R"({"dirs":["x","y"],"files":[]})", "dirs   x\n       y\nfiles  (none)\n"},
             {R"({"t":"one\ntwo","z":1})", "t  one\n   two\nz  1\n"},
             {R"({"o":{"a":1,"bb":{"c":2}}})", "o\n  a   1\n  bb\n    c  2\n"},
             {R"({"rows":[{"name":"ä","n":1},{"name":"bbb","m":2.50}]})",
              "rows\n  name  n  m\n  ä     1\n  bbb      2.50\n"},
             {R"({"mixed":[{"a":{"b":1}},[1,2],5]})", "mixed\n  a\n    b  1\n\n    1\n    2\n  5\n"},
             {"not json", "not json\n"},
         }) {
        std::ostringstream stream;
        ResponsePrinter(stream).print(json, {"hidden"});
        EXPECT_EQ(stream.str(), text) << json;
    }
}

} // namespace
