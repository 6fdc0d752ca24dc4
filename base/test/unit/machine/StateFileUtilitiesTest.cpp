// The extension of session files and the messages about them.

#include "machine/StateFileUtilities.h"

#include "platform/FileSystem.h"
#include "platform/StringHelper.h"

#include <gtest/gtest.h>

namespace {

TEST(StateFileUtilities, extensionIsAppendedAlways) {
    EXPECT_EQ(StateFileUtilities::appendExtension(L"a"), L"a.sim");
    EXPECT_EQ(StateFileUtilities::appendExtension(L"a.sim"), L"a.sim.sim");
    EXPECT_EQ(StateFileUtilities::appendExtension(L""), L".sim");
}

TEST(StateFileUtilities, messages) {
    EXPECT_EQ(StateFileUtilities::getStateFileAlreadyExistsErrorMessage(L"/d/\u00e4.sim"),
              "Unable to create a new file /d/\u00e4.sim.  The file already exists.");

    const std::string directory = StringHelper::toString(Platform::filesystem().getCurrentDirectory());
    const std::string missing =
        " (specify -new to create the file)\nServer working directory: '" + directory + "'\n";
    struct Row {
        const wchar_t* path;
        bool creating;
        std::string message;
    };
    const Row rows[] = {
        {L"/", true, "Cannot create file: /.  File is a directory.\n"},
        {L"/", false, "Cannot open file: /.  File is a directory.\n"},
        {L"/no/such", true, "Cannot create file: /no/such" + missing},
        {L"/no/such", false, "Cannot open file: /no/such" + missing},
        {L"/etc/passwd", false, "Cannot open file: /etc/passwd"},
        {L"", false, "Cannot open file: " + missing},
    };
    for (const Row& row : rows)
        EXPECT_EQ(StateFileUtilities::getStateFileNotFoundErrorMessage(row.path, row.creating), row.message);
}

} // namespace
