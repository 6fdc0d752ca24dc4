#include "machine/LegalFileHelper.h"

#include "kernel/Properties.h"
#include "platform/StringHelper.h"

#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

namespace {

const std::string FILE_CHARACTERS = "The file name contains one or more restricted characters:\n"
                                    "\\/:*?\"<>|!@$&()[]'`={},;\n\n";
const std::string PATH_CHARACTERS = "The path name contains one or more restricted characters:\n"
                                    "*\"<>|!@$&[]'`={},;\n\n";
const std::string RESERVED_FILE =
    "The file name is illegal on Windows.  For portability reasons, it is not allowed.\n\n";
const std::string COLON = "The path name contains illegal usage of the : character.\n\n\n";
const std::string QUESTION = "The path name contains illegal usage of the ? character.\n\n\n";
const std::string BOTH = "The path name contains illegal usage of the ? and : characters.\n\n\n";

std::string reservedPath(const std::string& token) {
    return "The path name contains " + token + ", which is illegal on Windows.\n\n";
}
std::string file(const std::string& what) {
    return "The file name " + what + "\n\n";
}
std::string path(const std::string& what) {
    return "The path name " + what + "\n\n";
}

TEST(LegalFileHelper, ObjectsToAllThatIsWrong) {
    const struct {
        std::wstring name;
        std::string objections;
    } rows[] = {
        {L"report.txt", ""},
        {L"/data/case/report.txt", ""},
        {L"/gr\u00fc\u00dfe/\u65e5\u672c.txt", ""},
        {L"/data (old)/report", ""},
        {L"/data/report (old)", FILE_CHARACTERS},
        {L"a*b", FILE_CHARACTERS + PATH_CHARACTERS},
        {L"/da*ta/report", PATH_CHARACTERS},
        {L"/a/b\\c", FILE_CHARACTERS},
        {L"con.txt", RESERVED_FILE + reservedPath("con.txt")},
        {L"Con", RESERVED_FILE + reservedPath("Con")},
        {L"/x/CON.tar.gz", RESERVED_FILE},
        {L"/x/console", ""},
        {L"/aux/lpt9.d/auxiliary/com0/a", reservedPath("aux") + reservedPath("lpt9.d")},
        // In the order of the reserved names, not of the folders.
        {L"/prn/aux.x/a", reservedPath("aux.x") + reservedPath("prn")},
        {L"C:/dir/file", ""},
        {L"dir:x/file", COLON},
        {L"\\\\?\\C:\\dir/file", ""},
        {L"\\\\?\\dir/file", ""},
        {L"abcd\\:x/file", BOTH},
        {L"di?r/file", QUESTION},
        {L"/ab?C:x/file", QUESTION + BOTH},
        {L"/x/-a", file("begins with a '-'.")},
        {L"/x/ a ", file("begins with a space.") + file("ends with a space.")},
        {L"/x/a.", file("ends with a period.")},
        {L"-x /a", path("begins with a '-'.") + path("ends with a space.")},
        {L" x./a", path("begins with a space.") + path("ends with a period.")},
        {L"/x/\x01"
         L"a\x7f",
         file("contains non-printable characters.") + file("contains non-printable characters.")},
        {L"/\n/a", path("contains non-printable characters.")},
        // A folder with its separator, and a file of the root: one part is empty.
        {L"/data/", ""},
        {L"/report", ""},
        {L"", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(StringHelper::toString(row.name));
        EXPECT_EQ(LegalFileHelper::checkFileNameIsLegal(row.name), row.objections);
    }
}

TEST(LegalFileHelper, TakesNamesOfCommands) {
    Properties properties;
    EXPECT_EQ(LegalFileHelper::getLegalFileNameFromProperties(properties, "file"), L"");
    properties.set("file", L"/data//\u00e4.sim");
    EXPECT_EQ(LegalFileHelper::getLegalFileNameFromProperties(properties, "file"), L"/data//\u00e4.sim");
    EXPECT_EQ(LegalFileHelper::getLegalFileNameFromProperties_Std(properties, "file"), "/data//\xc3\xa4.sim");
    properties.set("file", L"/x/a;b.");
    EXPECT_EQ(
        messageOf<InputError>([&] { LegalFileHelper::getLegalFileNameFromProperties(properties, "file"); }),
        FILE_CHARACTERS + file("ends with a period."));
}

} // namespace
