#include "machine/LegalFileHelper.h"

#include "kernel/Properties.h"
#include "platform/StringHelper.h"

#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace {

/// Names and the objections to them are kept as data, where pictures stand for control characters.
TEST(LegalFileHelper, ObjectsToAllThatIsWrong) {
    std::stringstream file;
    file << std::ifstream(ORVEX_TEST_DATA "/names/legal.txt").rdbuf();
    const std::string text = file.str();
    std::size_t rows = 0;
    for (std::size_t begin = text.find("\n<"), end = 0; begin != std::string::npos; begin = end, ++rows) {
        const std::size_t middle = text.find(">\n", begin);
        end = text.find("\n<", middle);
        std::wstring name = StringHelper::toWString(text.substr(begin + 2, middle - begin - 2));
        for (wchar_t& character : name)
            if (character >= 0x2400 && character <= 0x2421)
                character = character == 0x2421 ? 0x7f : character - 0x2400;
        EXPECT_EQ(LegalFileHelper::checkFileNameIsLegal(name), text.substr(middle + 2, end - middle - 2))
            << StringHelper::toString(name);
    }
    EXPECT_GT(rows, 30u);
}

TEST(LegalFileHelper, TakesNamesOfCommands) {
    Properties properties;
    EXPECT_EQ(LegalFileHelper::getLegalFileNameFromProperties(properties, "file"), L"");
    properties.set("file", L"/data//\u00e4.sim");
    EXPECT_EQ(LegalFileHelper::getLegalFileNameFromProperties(properties, "file"), L"/data//\u00e4.sim");
    EXPECT_EQ(LegalFileHelper::getLegalFileNameFromProperties_Std(properties, "file"), "/data//\xc3\xa4.sim");
    properties.set("file", L"/x/a.");
    EXPECT_EQ(
        messageOf<InputError>([&] { LegalFileHelper::getLegalFileNameFromProperties(properties, "file"); }),
        "The file name ends with a period.\n\n");
}

} // namespace
