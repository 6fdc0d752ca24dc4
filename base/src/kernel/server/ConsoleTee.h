#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <string>

/// The line that stands where output was lost.
inline std::string describeLostOutput(std::size_t bytes) {
    return "\n(" + std::to_string(bytes) + " bytes of output are lost here: they could not be written)\n";
}

/// Stands under an output stream and keeps a bounded copy of what passes for those who want to read along.
///
/// Output goes on to the buffer beneath first and unchanged, flushes included. Any thread may write.
/// A failure of the buffer beneath (a full disk, a closed pipe) never fails the stream: those who read along
/// get all the text. The buffer is tried again with each later text, and the first one that it takes comes
/// behind a line that tells how much it lost.
class ConsoleTee : public std::streambuf {
public:
    struct Text {
        std::string text;
        std::size_t lostLines = 0; ///< of what came when the copy was full
    };

    /// Puts itself under `stream` at once, for its lifetime.
    /// @param limit   bytes of the copy
    /// @param onText  called on the writing thread, without a lock, when there is text to fetch
    ConsoleTee(std::ostream& stream, std::size_t limit, std::function<void()> onText);
    ConsoleTee(const ConsoleTee&) = delete;
    ConsoleTee& operator=(const ConsoleTee&) = delete;
    ~ConsoleTee() override;

    /// Whether anybody reads along; without, nothing is copied.
    void setWanted(bool wanted) { _wanted = wanted; }
    /// The copy so far, which is empty afterwards. Any thread.
    Text take();
    /// Makes the stream usable again when an inserter has failed it. The thread that runs the commands.
    void revive();

protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* text, std::streamsize size) override;
    int sync() override;

private:
    void forward(const char* text, std::size_t size);
    bool tellLoss();
    void keep(const char* text, std::size_t size);

    std::ostream& _stream;
    std::streambuf* const _beneath;
    const std::size_t _limit;
    const std::function<void()> _onText;
    std::atomic<bool> _wanted{false};
    std::mutex _forwardMutex; ///< one writer at a time to the buffer beneath; guards what follows
    std::string _pendingLoss; ///< the rest of a line about a loss that is only partly written
    std::size_t _lostBytes = 0;
    std::mutex _textMutex; ///< guards what follows
    std::string _text;
    std::size_t _lostLines = 0;
};
