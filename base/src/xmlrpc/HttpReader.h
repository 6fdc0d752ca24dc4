#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

struct http_parser;

namespace XmlRpc {

/// Reads one HTTP message, as its bytes arrive: a request, or an answer. All sizes are bounded.
class HttpReader {
public:
    enum class Kind { REQUEST, ANSWER };
    enum class State { INCOMPLETE, COMPLETE, REFUSED };

    static constexpr std::size_t MAX_HEADER_SIZE = 8192; ///< [bytes]
    static constexpr std::size_t MAX_HEADER_LINES = 100;

    /// @param maxBody  limit of the body [bytes]
    HttpReader(Kind kind, std::size_t maxBody);
    ~HttpReader();
    HttpReader(const HttpReader&) = delete;
    HttpReader& operator=(const HttpReader&) = delete;

    /// Called once, when the header is complete. It returns the HTTP status that refuses the message, or 0.
    void setCheck(std::function<int()> check) { _check = std::move(check); }

    /// Bytes behind the end of the message are ignored.
    State read(std::string_view bytes);
    /// The peer sends no more. An answer without a length ends so.
    State readEnd();

    bool isHeaderComplete() const { return _headerComplete; }
    /// The status of an answer. Of a refused request, the status to answer with.
    int getStatus() const { return _status; }
    /// The reason of a refusal.
    const std::string& getFailure() const { return _failure; }
    std::string getMethod() const;
    /// The path in the request line, without the query.
    std::string getPath() const;
    /// The value of `key` in the query of the request line; empty when there is none.
    std::string getQuery(std::string_view key) const;
    /// The value of a header line, its name in lower case; empty when there is none.
    std::string getHeader(const std::string& name) const;
    bool isHttp11() const;
    /// Whether a request tells the length of its body in advance.
    bool hasLength() const;
    const std::string& getBody() const { return _body; }

private:
    struct Callbacks;

    State refuse(int status, const std::string& reason);
    State readHeader(std::string_view bytes, std::size_t& used);
    bool checkHeaderBytes(std::string_view bytes);
    State parse(std::string_view bytes, std::size_t& used);
    std::string urlField(unsigned field) const;
    int onField(std::string_view text);
    int onValue(std::string_view text);
    int onHeaders();
    int onBody(std::string_view text);
    int onComplete();

    const Kind _kind;
    const std::size_t _maxBody;
    std::unique_ptr<http_parser> _parser;
    std::function<int()> _check;
    State _state = State::INCOMPLETE;
    int _status = 0;
    std::string _failure;
    std::string _url;
    std::map<std::string, std::string> _headers;
    std::string _field;     ///< of the header line that is being read
    bool _inValue = true;   ///< of a header line
    std::size_t _lines = 0; ///< of the header
    std::size_t _headerSize = 0;
    char _last = 0; ///< byte of the header
    bool _headerComplete = false;
    std::string _body;
};

} // namespace XmlRpc
