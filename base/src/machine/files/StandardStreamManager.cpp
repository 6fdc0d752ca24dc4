#include "machine/StandardStreamManager.h"

#include "machine/MachineGround.h"
#include "machine/StreamRedirector.h"

#include "kernel/Raise.h"
#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"

#include <utility>

/// One of the two streams. Untouched: no redirector, no log file. Silent: a redirector. Moved: a log file,
/// with or without a redirector.
class StandardStreamManager::StreamManager {
public:
    StreamManager(FILE* stream, std::wstring logPath) : _stream(stream), _logPath(std::move(logPath)) {}

    ~StreamManager() {
        _redirector.reset();
        if (_logFile == nullptr)
            return;
        // Nothing was written through it: the stream's own descriptor did that. So nothing can be lost here.
        std::fclose(_logFile);
        // The file served the running job; if it can't be removed it does no harm.
        if (Platform::filesystem().exists(_logPath))
            static_cast<void>(Platform::filesystem().deleteFile(_logPath));
    }

    StreamManager(const StreamManager&) = delete;
    StreamManager& operator=(const StreamManager&) = delete;

    bool hasLogFile() const { return _logFile != nullptr; }
    bool hasRedirector() const { return _redirector != nullptr; }
    void setOutputPrefix(std::string prefix) { _outputPrefix = std::move(prefix); }

    /// The path, empty when the file can't be opened.
    std::wstring redirectOriginalStreamToFile() {
        if (_logFile != nullptr)
            return _logPath;
        // The folder may be one that all users write to.
        _logFile = Platform::filesystem().createPrivateFile(_logPath);
        if (_logFile == nullptr)
            return {};
        const int descriptor = Platform::io().getDescriptor(_logFile);
        if (_redirector == nullptr) {
            StreamRedirector mover(_stream, descriptor);
            mover.setRestoreDescriptor(descriptor);
        } else {
            _redirector->setRestoreDescriptor(descriptor);
        }
        return _logPath;
    }

    void redirectToNullDevice() {
        _redirector.reset();
        _redirector = std::make_unique<StreamRedirector>(_stream, Platform::filesystem().getNullDevice());
    }

    void restore() { _redirector.reset(); }

private:
    FILE* _stream;
    std::wstring _logPath;
    FILE* _logFile = nullptr;
    std::unique_ptr<StreamRedirector> _redirector;
    std::string _outputPrefix;
};

std::unique_ptr<StandardStreamManager::StreamManager>
StandardStreamManager::createStreamManager(FILE* stream, const std::wstring& directory,
                                           const std::wstring& name) {
    const std::string& executable = MachineGround::getExecutableName();
    const std::wstring fileName = StringHelper::toWString(executable.substr(0, executable.rfind('.'))) +
                                  std::to_wstring(Platform::process().getPid()) + L"-" + name + L".txt";
    return std::make_unique<StreamManager>(stream, Platform::filesystem().join(directory, fileName));
}

StandardStreamManager::StandardStreamManager(const std::wstring& directory, bool)
    : _standardOutputManager(createStreamManager(stdout, directory, L"stdout")),
      _standardErrorManager(createStreamManager(stderr, directory, L"stderr")) {}

StandardStreamManager::~StandardStreamManager() = default;

std::pair<std::wstring, std::wstring> StandardStreamManager::redirectOriginalStreamsToFile() {
    const std::wstring stdoutLogFile = _standardOutputManager->redirectOriginalStreamToFile();
    ORVEX_ASSERT(!stdoutLogFile.empty(), "Failed to redirect stdout");
    const std::wstring stderrLogFile = _standardErrorManager->redirectOriginalStreamToFile();
    ORVEX_ASSERT(!stderrLogFile.empty(), "Failed to redirect stderr");
    return {stdoutLogFile, stderrLogFile};
}

bool StandardStreamManager::hasRedirectedOriginalStreams() const {
    return _standardOutputManager->hasLogFile() || _standardErrorManager->hasLogFile();
}

void StandardStreamManager::redirectToNullDevice() {
    _standardOutputManager->redirectToNullDevice();
    _standardErrorManager->redirectToNullDevice();
}

void StandardStreamManager::restore() {
    _standardOutputManager->restore();
    _standardErrorManager->restore();
}

bool StandardStreamManager::hasNullRedirection() const {
    return !_standardOutputManager->hasRedirector() || !_standardErrorManager->hasRedirector();
}

void StandardStreamManager::prependOutput(std::string prefix) {
    _standardOutputManager->setOutputPrefix(prefix);
    _standardErrorManager->setOutputPrefix(std::move(prefix));
}
