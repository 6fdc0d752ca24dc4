// The three passes over the command line: every option, every refusal, and what options do to each other.

#include "machine/CommandLine.h"
#include "machine/Machine.h"
#include "machine/ParameterInitialValues.h"
#include "machine/RemoteShellFactory.h"
#include "machine/ServerHostOptions.h"

#include "kernel/FpeAgnosticMode.h"
#include "kernel/OrvexVersion.h"
#include "kernel/Raise.h"
#include "kernel/SignalHandler.h"
#include "platform/Base64Encoder.h"
#include "platform/FileSystem.h"
#include "platform/RendererConfig.h"
#include "platform/StringHelper.h"

#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>

namespace {

using Words = std::vector<std::string>;
using Consumed = CommandLine::Consumed;

std::string base64(const std::wstring& text) {
    return Base64Encoder::encode(text);
}

std::string describe(const Words& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

class CommandLineTest : public testing::Test {
protected:
    void SetUp() override { MachineTestAccess::startAfresh(); }
    void TearDown() override { MachineTestAccess::startAfresh(); }
};

template <class E>
std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const E& error) {
        return error.what();
    }
    return "no error";
}

} // namespace

TEST_F(CommandLineTest, WalkSkipsEmptyWordsAndRemembersWhatWasConsumed) {
    const char* words[] = {"program", "", "-a", "1", nullptr, "-b", "-a"};
    Consumed consumed;
    CommandLine line(7, words, consumed);
    ASSERT_TRUE(line.next());
    EXPECT_EQ(line.word(), "-a");
    EXPECT_TRUE(line.hasValues(4));
    EXPECT_FALSE(line.hasValues(5));
    EXPECT_EQ(line.value(), "1");
    EXPECT_EQ(line.value(2), "");
    line.consume(2);
    ASSERT_TRUE(line.next());
    EXPECT_EQ(line.word(), "-b");
    EXPECT_FALSE(line.skipConsumed());
    ASSERT_TRUE(line.next());
    EXPECT_FALSE(line.hasValues(1));
    EXPECT_TRUE(line.skipConsumed());
    EXPECT_FALSE(line.next());
    EXPECT_EQ(consumed, (Consumed{{"-a", 2}}));
}

TEST_F(CommandLineTest, NumbersAreReadAsFarAsTheyGoAndStayInRange) {
    EXPECT_EQ(CommandLine::toInt("17x"), 17);
    EXPECT_EQ(CommandLine::toInt("x"), 0);
    EXPECT_EQ(CommandLine::toInt("-3"), -3);
    EXPECT_EQ(CommandLine::toInt("99999999999999999999"), 2147483647);
}

// Pass 1
// ------------------------------------------------------------------------------------------------------

TEST_F(CommandLineTest, EachDriverNameHasItsModule) {
    const std::vector<std::pair<const char*, const char*>> rows = {
        {"platform", "OrvexPlatformMpi"}, {"intel", "OrvexIntelMpi"},    {"ms", "OrvexMsMpi"},
        {"msmpi", "OrvexMsMpi"},          {"openmpi3", "OrvexOpenMpi3"}, {"openmpi4", "OrvexOpenMpi4"},
        {"mpich2", "OrvexMpich2Ch3"},     {"hpe", "OrvexHpeMpi"},        {"crayxt7", "OrvexCrayMpt7"}};
    for (const auto& [driver, module] : rows)
        EXPECT_STREQ(MachineTestAccess::driverModuleName(driver), module);
}

TEST_F(CommandLineTest, RoleOptionsThatAreWrongAreRefused) {
    const std::vector<std::pair<Words, std::string>> rows = {
        {{}, "The flag -mpidriver or -mpi must be specified"},
        {{"-S"}, "The flag -mpidriver or -mpi must be specified"},
        {{"-mpi=openmpi4"}, "The flag -mpidriver or -mpi must be specified"},
        {{"-mpi"}, "Missing -mpidriver arg"},
        {{"-mpidriver"}, "Missing -mpidriver arg"},
        {{"-mpi", "foo"}, "Unknown MPI driver: foo"},
        {{"-mpi", "Intel"}, "Unknown MPI driver: Intel"},
        {{"-mpi", "foo", "-mpi", "intel"}, "Unknown MPI driver: foo"},
        {{"-mpi", "intel", "-mpidriver", "foo"}, "Unknown MPI driver: foo"},
        {{"-mpi", ""}, "Unknown MPI driver: "},
        {{"-mpi", "msmpi", "-xinternalmsmpidll"}, "Missing -xinternalmsmpidll arg"},
    };
    for (const auto& [words, message] : rows) {
        Consumed consumed;
        const auto start = [&words = words, &consumed] {
            MachineTestAccess::startCommunicators(words, consumed);
        };
        EXPECT_EQ(messageOf<std::invalid_argument>(start), message) << describe(words);
    }
}

TEST_F(CommandLineTest, AWordForASerialProcessDecidesBeforeAnyDriverIsLookedFor) {
    struct Row {
        Words words;
        Consumed consumed;
        bool proxyServer;
        bool daemon;
    };
    const std::vector<Row> rows = {
        {{"-s", "-mpi", "foo"}, {{"-s", 1}}, false, false},
        {{"-mpi", "-s"}, {{"-s", 1}}, false, false},
        {{"-proxyserver", "-s"}, {{"-proxyserver", 1}, {"-s", 1}}, true, false},
        {{"-proxydaemon"}, {{"-proxydaemon", 1}}, false, true},
    };
    for (const Row& row : rows) {
        MachineTestAccess::startAfresh();
        Consumed consumed;
        MachineTestAccess::startCommunicators(row.words, consumed);
        EXPECT_EQ(consumed, row.consumed) << describe(row.words);
        EXPECT_TRUE(Machine::isSerial());
        EXPECT_EQ(Machine::isProxyServer(), row.proxyServer);
        EXPECT_EQ(Machine::isProxySessionDaemon(), row.daemon);
        EXPECT_EQ(OrvexVersion::_machineConfig, "Serial");
        EXPECT_EQ(Machine::getHost().getNumberProcesses(), 1u);
    }
}

TEST_F(CommandLineTest, ADriverThatIsNotInstalledIsNamedWithTheReason) {
    Consumed consumed;
    const auto start = [&consumed] { MachineTestAccess::startCommunicators({"-mpi", "crayxt7"}, consumed); };
    const std::string message = messageOf<InternalError>(start);
    EXPECT_EQ(message.find("Failed to initialize MPI wrapper: "), 0u) << message;
    EXPECT_NE(message.find("OrvexCrayMpt7"), std::string::npos) << message;
    EXPECT_TRUE(Machine::isSerial());
}

// Pass 2
// ------------------------------------------------------------------------------------------------------

TEST_F(CommandLineTest, EachCommonOptionHasItsEffectAndIsConsumed) {
    struct Row {
        Words words;
        std::function<bool()> before;
        std::function<bool()> after;
    };
    const auto no = [](auto&& question) { return [question] { return !question(); }; };
    const auto row = [&no](Words words, auto question) {
        return Row{std::move(words), no(question), question};
    };
    Machine& (*machine)() = &Machine::getSingleton;
    const std::vector<Row> rows = {
        row({"-deleteOnExit"}, &MachineTestAccess::deletesOnExit),
        row({"-xnousage"}, &MachineTestAccess::isUsageDisabled),
        row({"-nothreads"}, [] { return !MachineTestAccess::isThreaded(); }),
        row({"-encoded-param", base64(L"name"), base64(L"b\u00fc")},
            [] {
                const auto& values = ParameterInitialValues::getSingleton().getParameterValues();
                return values == std::map<std::string, std::string>{{"name", "b\u00fc"}};
            }),
        row({"-rsh", "plink"},
            [] { return RemoteShellFactory::getSingleton().getDefaultCommand() == L"plink"; }),
        row({"-iodebug", "3"}, [] { return Machine::getIOVerbosityLevel() == 3; }),
        row({"-cpubind", "latency"},
            [] { return MachineTestAccess::getCpuBindingPolicy() == LATENCY_BINDING; }),
        row({"-cpubind", "leastload"},
            [] { return MachineTestAccess::getCpuBindingPolicy() == LEAST_LOAD_BINDING; }),
        row({"-cpubind", "disable"}, [] { return !MachineTestAccess::usesInternalBinding(); }),
        row({"-cpubindcontentiontest", "disable"},
            [] { return !Machine::isCpuBindingContentionTestEnabled(); }),
        row({"-xnodeverrors"}, [] { return !MachineTestAccess::getDevErrorChecking(); }),
        row({"-xthreadbindoff"}, [] { return !Machine::bindThreads(); }),
        row({"-xthreadbindverbose"}, &Machine::enableThreadBindingVerbosity),
        row({"-printpids"}, &Machine::getPrintpids),
        row({"-rrthreads", "5"}, [] { return RendererConfig::getSingleton().getNumRenderThreads() == 5; }),
        row({"-rgraphics", "none"},
            [] { return RendererConfig::getSingleton().getGraphics() == RendererConfig::NO_GRAPHICS; }),
        row({"-jobmanagerurl", "http://x", "-taskid", "5"},
            [machine] { return machine().getJobManagerURL() == L"http://x" && machine().getTaskId() == 5; }),
    };
    for (const Row& each : rows) {
        MachineTestAccess::startAfresh();
        EXPECT_TRUE(each.before()) << describe(each.words);
        Consumed consumed;
        MachineTestAccess::parseCommonArgvs(each.words, consumed);
        EXPECT_TRUE(each.after()) << describe(each.words);
        ASSERT_TRUE(consumed.contains(each.words.front())) << describe(each.words);
        if (consumed.size() == 1) {
            EXPECT_EQ(consumed.begin()->second, each.words.size());
        }
    }
}

TEST_F(CommandLineTest, OptionsWithoutEffectHereAreConsumedAndForeignWordsAreLeft) {
    Consumed consumed;
    MachineTestAccess::parseCommonArgvs({"-mpi",
                                         "a",
                                         "-time",
                                         "-what",
                                         "word",
                                         "",
                                         "-mpidriver",
                                         "b",
                                         "-cpubindverbose",
                                         "-cpubindextendedverbosity",
                                         "-xmpidriver",
                                         "c",
                                         "-xmpiversion",
                                         "d",
                                         "-cpubind",
                                         "bandwidth",
                                         "-cpubindcontentiontest",
                                         "enable",
                                         "-pio",
                                         "-taskid",
                                         "0",
                                         "-encoded-param",
                                         base64(L"a"),
                                         base64(L"1"),
                                         "-encoded-param",
                                         base64(L"a"),
                                         base64(L"2")},
                                        consumed);
    EXPECT_EQ(consumed, (Consumed{{"-mpi", 2},
                                  {"-time", 1},
                                  {"-mpidriver", 2},
                                  {"-cpubindverbose", 1},
                                  {"-cpubindextendedverbosity", 1},
                                  {"-xmpidriver", 2},
                                  {"-xmpiversion", 2},
                                  {"-cpubind", 2},
                                  {"-cpubindcontentiontest", 2},
                                  {"-pio", 1},
                                  {"-taskid", 2},
                                  {"-encoded-param", 3}}));
    EXPECT_EQ(MachineTestAccess::getCpuBindingPolicy(), BANDWIDTH_BINDING);
    EXPECT_TRUE(MachineTestAccess::usesInternalBinding());
    EXPECT_FALSE(Machine::getSingleton().isParallelIo());
    EXPECT_EQ(Machine::getSingleton().getTaskId(), -1);
    EXPECT_EQ(ParameterInitialValues::getSingleton().getParameterValues().at("a"), "2");
    EXPECT_EQ(Machine::getExecutableName(), "OrvexMachineTests");
    EXPECT_TRUE(Platform::filesystem().isDirectory(Machine::getExecutablePath()));
}

TEST_F(CommandLineTest, ParallelInputAndOutputNeedsAJob) {
    MachineTestAccess::playRole(Machine::WORKER_MODE, 2, 1);
    Consumed consumed;
    MachineTestAccess::parseCommonArgvs({"-pio"}, consumed);
    EXPECT_TRUE(Machine::getSingleton().isParallelIo());
}

TEST_F(CommandLineTest, CommonOptionsThatAreWrongAreRefused) {
    std::vector<std::pair<Words, std::string>> rows = {
        {{"-mpi"}, "Missing -mpi arg"},
        {{"-mpidriver"}, "Missing -mpi arg"},
        {{"-encoded-param"}, "Missing -encoded-param arg arg"},
        {{"-encoded-param", base64(L"a")}, "Missing -encoded-param arg arg"},
        {{"-cpubind", "none"},
         "-cpubind argument must be latency/leastload/disable (don't specify anything for "
         "bandwidth)"},
        {{"-cpubindcontentiontest", "enabled"},
         "-cpubindcontentiontest argument must either be enabled/disable"},
        {{"-jobmanagerurl", "http://x"}, "The options -jobmanagerurl and -taskid must both be specified"},
        {{"-jobmanagerurl", "http://x", "-taskid", "0"},
         "The options -jobmanagerurl and -taskid must both be specified"},
        {{"-taskid", "5"}, "The options -jobmanagerurl and -taskid must both be specified"},
    };
    for (const char* word :
         {"-module", "-xmpiversion", "-xmpidriver", "-rsh", "-tmpdir", "-iodebug", "-cpubind",
          "-cpubindcontentiontest", "-jobmanagerurl", "-taskid", "-rrthreads", "-rgraphics"})
        rows.push_back({{word}, std::string("Missing ") + word + " arg"});
    for (const auto& [words, message] : rows) {
        Consumed consumed;
        const auto parse = [&words = words, &consumed] {
            MachineTestAccess::parseCommonArgvs(words, consumed);
        };
        EXPECT_EQ(messageOf<std::invalid_argument>(parse), message) << describe(words);
        EXPECT_FALSE(consumed.contains(words.front()) && words.size() == 1) << describe(words);
    }
    Consumed consumed;
    const auto badGraphics = [&consumed] {
        MachineTestAccess::parseCommonArgvs({"-rgraphics", "cubist"}, consumed);
    };
    EXPECT_EQ(messageOf<InternalError>(badGraphics).find("RendererConfig error: "), 0u);
    const auto badBase64 = [&consumed] {
        MachineTestAccess::parseCommonArgvs({"-encoded-param", "a", "*"}, consumed);
    };
    EXPECT_NE(messageOf<std::invalid_argument>(badBase64), "no error");
}

TEST_F(CommandLineTest, AModuleThatCantBeLoadedIsAnErrorAtItsPlace) {
    Consumed consumed;
    const auto parse = [&consumed] {
        MachineTestAccess::parseCommonArgvs({"-nothreads", "-module", "NoSuchModule", "-pio"}, consumed);
    };
    EXPECT_EQ(messageOf<SystemError>(parse).find("DynamicLoader: couldn't load NoSuchModule.\n"), 0u);
    EXPECT_EQ(consumed, (Consumed{{"-nothreads", 1}}));
}

TEST_F(CommandLineTest, TemporaryDirectoryFallsBackWhenItCantBeHad) {
    auto& files = Platform::filesystem();
    const std::wstring standard = files.getDefaultTemporaryDirectory();
    const std::wstring root = files.makeTemporaryDirectory(standard, L"orvex-machine-test");
    const std::wstring file = files.join(root, L"file");
    std::ofstream(StringHelper::toString(file)) << "x";
    const std::vector<std::pair<std::wstring, std::wstring>> rows = {
        {root, root},
        {files.join(root, L"new"), files.join(root, L"new")},
        {file, standard},
        {L"", standard}};
    for (const auto& [given, taken] : rows) {
        MachineTestAccess::startAfresh();
        Consumed consumed;
        MachineTestAccess::parseCommonArgvs({"-tmpdir", StringHelper::encode(StringHelper::toString(given))},
                                            consumed);
        EXPECT_EQ(Machine::getSingleton().getTemporaryDirectory(), taken);
    }
    EXPECT_TRUE(files.isDirectory(files.join(root, L"new")));
    EXPECT_TRUE(files.deleteTree(root));
}

TEST_F(CommandLineTest, FloatingPointOptionsSeeWhatStoodBeforeThem) {
    const std::string enabling = "Enabling asynchronous floating point exceptions.\n";
    const std::string warning = "****************************************\n"
                                "WARNING: FPE register checking disabled.\n"
                                "****************************************\n";
    const std::string disabling =
        "NOTE: The '-xdisable-fpe-register-checking' flag is incompatible with '-fpe'.\n"
        "      Disabling asynchronous floating point exceptions.\n";
    const std::string noEffect =
        "NOTE: The '-fpe' flag has no effect when '-xdisable-fpe-register-checking' is "
        "enabled.\n";
    struct Row {
        Words words;
        bool worker;
        bool agnostic;
        bool signals;
        std::string developmentText;
        std::string releaseText;
    };
    const std::string fpe = "-fpe";
    const std::string disable = "-xdisable-fpe-register-checking";
    const std::vector<Row> rows = {
        {{fpe}, false, false, true, enabling, enabling},
        {{disable}, false, true, false, warning, ""},
        {{fpe, disable}, false, true, false, enabling + warning + disabling, enabling},
        {{disable, fpe}, false, true, false, warning + noEffect, enabling},
        {{disable, disable}, false, true, false, warning, ""},
        {{fpe, disable}, true, true, false, enabling, enabling},
        {{disable, fpe}, true, true, false, "", enabling},
    };
    const bool development = OrvexVersion::isDevelopmentVersion();
    for (const Row& row : rows) {
        MachineTestAccess::startAfresh();
        if (row.worker)
            MachineTestAccess::playRole(Machine::WORKER_MODE, 2, 1);
        Consumed consumed;
        testing::internal::CaptureStdout();
        MachineTestAccess::parseCommonArgvs(row.words, consumed);
        const std::string text = testing::internal::GetCapturedStdout();
        const bool hasFpe = consumed.contains(fpe);
        EXPECT_EQ(text, development ? row.developmentText : row.releaseText) << describe(row.words);
        EXPECT_EQ(FpeAgnosticMode::isActive(), development && row.agnostic) << describe(row.words);
        EXPECT_EQ(SignalHandler::_catchFpeSignals, development ? row.signals : hasFpe) << describe(row.words);
    }
}

TEST_F(CommandLineTest, TheFirstDesignFlagDecides) {
    struct Row {
        Words words;
        bool manager;
        bool study;
    };
    const std::vector<Row> rows = {{{}, false, false},
                                   {{"-dmproject", "-encoded-dmrunfile", "x"}, true, false},
                                   {{"a", "-encoded-dmrunfile", "x", "-dmproject"}, false, true}};
    for (const Row& row : rows) {
        MachineTestAccess::scanForDesignFlags(row.words);
        EXPECT_EQ(Machine::getSingleton().isDesignManager(), row.manager) << describe(row.words);
        EXPECT_EQ(Machine::getSingleton().isDesignStudy(), row.study) << describe(row.words);
    }
}

// Pass 3
// ------------------------------------------------------------------------------------------------------

namespace {

/// What earlier passes leave.
const Consumed EARLIER = {{"-mpi", 2}, {"-encoded-param", 3}, {"-printpids", 1}};

ServerHostOptions parseServerHost(const Words& words, bool parallel = false, bool designManager = false) {
    std::vector<const char*> argv = {"orvexsim"};
    for (const std::string& word : words)
        argv.push_back(word.c_str());
    Consumed consumed = EARLIER;
    return ServerHostOptions::parse(static_cast<int>(argv.size()), argv.data(), consumed, parallel,
                                    designManager);
}

} // namespace

TEST_F(CommandLineTest, ServerOptionsHaveTheirDefaults) {
    const ServerHostOptions options =
        parseServerHost({"", "-mpi", "-port", "-encoded-param", "a", "b", "-printpids"});
    EXPECT_EQ(options.sessionName, L"");
    EXPECT_EQ(options.clientAddress, "");
    EXPECT_EQ(options.proxyHost, "");
    EXPECT_EQ(options.proxyCommand, "");
    EXPECT_EQ(options.processFileName, "");
    EXPECT_EQ(options.passToDesign, L"");
    EXPECT_EQ(options.port, 47827u);
    EXPECT_EQ(options.portRange, -1);
    EXPECT_TRUE(options.connect && options.outputToClients && options.sessionLocator);
    EXPECT_FALSE(options.collaborate || options.load || options.createNew || options.proxyDebug ||
                 options.attachDebugger);
}

TEST_F(CommandLineTest, EachServerOptionHasItsEffect) {
    using Options = ServerHostOptions;
    struct Row {
        Words words;
        std::function<bool(const Options&)> holds;
        bool parallel = false;
    };
    const std::vector<Row> rows = {
        {{"-xclientaddr", "-x"}, [](const Options& o) { return o.clientAddress == "-x"; }},
        {{"-collab"}, [](const Options& o) { return o.collaborate; }},
        {{"-noconnect"}, [](const Options& o) { return !o.connect; }},
        {{"-cout"}, [](const Options& o) { return !o.outputToClients; }},
        {{"-load"}, [](const Options& o) { return o.load; }},
        {{"-loc"}, [](const Options& o) { return !o.sessionLocator; }},
        {{"-new"}, [](const Options& o) { return o.createNew; }},
        {{"-encoded-passtodesign", base64(L"\u00fc")},
         [](const Options& o) { return o.passToDesign == L"\u00fc"; }},
        {{"-procfile", "p"}, [](const Options& o) { return o.processFileName == "p"; }},
        {{"-proxy", "h", "-encoded-proxycmd", base64(L"c d"), "-proxydebug"},
         [](const Options& o) { return o.proxyHost == "h" && o.proxyCommand == "c d" && o.proxyDebug; }},
        {{"-port", "5"}, [](const Options& o) { return o.port == 5; }},
        {{"-port", "7x"}, [](const Options& o) { return o.port == 7; }},
        {{"-portrange", "9"}, [](const Options& o) { return o.portRange == 9; }},
        {{"-s"}, [](const Options& o) { return o.sessionName.empty(); }},
        {{"-session", "-a b"}, [](const Options& o) { return o.sessionName == L"-a b"; }},
        {{"-encoded-session", base64(L"\u00e4")},
         [](const Options& o) { return o.sessionName == L"\u00e4"; }},
        {{"-totalview"}, [](const Options& o) { return o.attachDebugger; }, true},
        {{"-dmproject", "-encoded-dmrunfile", "x", "-dmpost"},
         [](const Options& o) { return o.sessionName.empty(); }},
        {{"b.sim", "c.sim"}, [](const Options& o) { return o.sessionName == L"b.sim"; }},
        {{"-session", "a.sim", "b.sim"}, [](const Options& o) { return o.sessionName == L"a.sim"; }},
        {{"b.sim", "-session", "a.sim"}, [](const Options& o) { return o.sessionName == L"a.sim"; }},
        {{StringHelper::encode(std::string("a b"))},
         [](const Options& o) { return o.sessionName == L"a b"; }},
    };
    for (const Row& row : rows)
        EXPECT_TRUE(row.holds(parseServerHost(row.words, row.parallel))) << describe(row.words);
}

TEST_F(CommandLineTest, ServerOptionsThatAreWrongAreRefused) {
    struct Row {
        Words words;
        std::string message;
        ServerHostOptions::Refusal::Kind kind = ServerHostOptions::Refusal::INVALID_ARGUMENT;
        bool parallel = false;
        bool designManager = false;
    };
    const auto number = ServerHostOptions::Refusal::INVALID_NUMBER;
    std::vector<Row> rows = {
        {{"-what"}, "\nUnrecognized argument '-what'"},
        {{"-"}, "\nUnrecognized argument '-'"},
        {{"--port", "5"}, "\nUnrecognized argument '--port'"},
        {{"-port=5"}, "\nUnrecognized argument '-port=5'"},
        {{"-Port", "5"}, "\nUnrecognized argument '-Port'"},
        {{"-totalview"}, "\nUnrecognized argument '-totalview'"},
        {{"-s"}, "\nUnrecognized argument '-s'", ServerHostOptions::Refusal::INVALID_ARGUMENT, true},
        {{"-port", "x"}, "\nInvalid server port number argument.", number},
        {{"-port", ""}, "\nInvalid server port number argument.", number},
        {{"-port", "-5"}, "\nInvalid server port number argument.", number},
        {{"-portrange", "x"}, "\nInvalid server port range number argument.", number},
        {{"-proxy", "h"}, "A proxy server was requested but a command was not provided"},
        {{"-dmproject", "-dmpost"},
         "-dmproject argument is not compatible with -dmpost argument",
         ServerHostOptions::Refusal::INVALID_ARGUMENT,
         false,
         true},
    };
    for (const char* word :
         {"-port", "-portrange", "-session", "-encoded-session", "-xclientaddr", "-procfile", "-proxy",
          "-encoded-proxycmd", "-encoded-passtodesign", "-encoded-dmrunfile"})
        rows.push_back({{"a.sim", word}, std::string("\nUnrecognized argument '") + word + "'"});
    for (const Row& row : rows) {
        try {
            parseServerHost(row.words, row.parallel, row.designManager);
            ADD_FAILURE() << describe(row.words);
        } catch (const ServerHostOptions::Refusal& refusal) {
            EXPECT_EQ(refusal.what(), row.message);
            EXPECT_EQ(refusal.getKind(), row.kind) << describe(row.words);
        }
    }
    EXPECT_THROW(parseServerHost({"-encoded-session", "*"}), ServerHostOptions::Refusal);
}

TEST_F(CommandLineTest, ARefusedServerOptionEndsTheProcessWithItsValue) {
    EXPECT_EXIT(MachineTestAccess::runRole({"-what"}), testing::ExitedWithCode(2),
                "^\nUnrecognized argument '-what'\n");
    EXPECT_EXIT(MachineTestAccess::runRole({"-port", "x"}), testing::ExitedWithCode(1),
                "^\nInvalid server port number argument\\.\n");
}
