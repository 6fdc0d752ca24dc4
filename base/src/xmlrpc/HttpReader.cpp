#include "xmlrpc/HttpReader.h"

#include "platform/StringHelper.h"

#include <http_parser.h>

#include <algorithm>

namespace XmlRpc {

namespace {

constexpr int BAD_REQUEST = 400;
constexpr int TOO_LARGE = 413;
constexpr int HEADER_TOO_LARGE = 431;
constexpr const char* EARLY_END = "it ends too early";
constexpr int STOP = -1; ///< the result of a callback that ends the parsing

} // namespace

/// The parser's callbacks, as functions of C.
struct HttpReader::Callbacks {
    static HttpReader& of(http_parser* parser) { return *static_cast<HttpReader*>(parser->data); }

    static http_parser_settings make() {
        http_parser_settings settings;
        http_parser_settings_init(&settings);
        settings.on_url = [](http_parser* parser, const char* text, std::size_t size) {
            of(parser)._url.append(text, size);
            return 0;
        };
        settings.on_header_field = [](http_parser* parser, const char* text, std::size_t size) {
            return of(parser).onField({text, size});
        };
        settings.on_header_value = [](http_parser* parser, const char* text, std::size_t size) {
            return of(parser).onValue({text, size});
        };
        settings.on_headers_complete = [](http_parser* parser) { return of(parser).onHeaders(); };
        settings.on_body = [](http_parser* parser, const char* text, std::size_t size) {
            return of(parser).onBody({text, size});
        };
        settings.on_message_complete = [](http_parser* parser) { return of(parser).onComplete(); };
        return settings;
    }
};

HttpReader::HttpReader(Kind kind, std::size_t maxBody)
    : _kind(kind), _maxBody(maxBody), _parser(std::make_unique<http_parser>()) {
    http_parser_init(_parser.get(), kind == Kind::REQUEST ? HTTP_REQUEST : HTTP_RESPONSE);
    _parser->data = this;
}

HttpReader::~HttpReader() = default;

HttpReader::State HttpReader::refuse(int status, const std::string& reason) {
    _state = State::REFUSED;
    _status = status;
    _failure = reason;
    return _state;
}

HttpReader::State HttpReader::read(std::string_view bytes) {
    while (_state == State::INCOMPLETE && !bytes.empty()) {
        std::size_t used = 0;
        if (_headerComplete)
            parse(bytes, used);
        else
            readHeader(bytes, used);
        bytes.remove_prefix(used);
    }
    return _state;
}

HttpReader::State HttpReader::readEnd() {
    std::size_t used = 0;
    if (_state == State::INCOMPLETE)
        parse({}, used);
    return _state == State::INCOMPLETE ? refuse(BAD_REQUEST, EARLY_END) : _state;
}

/// Feeds the header's bytes only up to the limit of its size. The bytes of a body may follow in them.
HttpReader::State HttpReader::readHeader(std::string_view bytes, std::size_t& used) {
    const std::size_t room = MAX_HEADER_SIZE - _headerSize;
    if (room == 0)
        return refuse(HEADER_TOO_LARGE,
                      "its header is larger than " + std::to_string(MAX_HEADER_SIZE) + " bytes");
    // Line by line, so that the bytes of a body aren't looked at as a header.
    const std::size_t end = bytes.find('\n');
    const std::string_view line = bytes.substr(0, std::min(room, end == bytes.npos ? end : end + 1));
    if (!checkHeaderBytes(line))
        return refuse(BAD_REQUEST, "a line of its header is folded or has a stray carriage return");
    _headerSize += line.size();
    return parse(line, used);
}

bool HttpReader::checkHeaderBytes(std::string_view bytes) {
    for (const char c : bytes) {
        const bool folded = _last == '\n' && (c == ' ' || c == '\t');
        if (folded || (_last == '\r' && c != '\n'))
            return false;
        _last = c;
    }
    return true;
}

HttpReader::State HttpReader::parse(std::string_view bytes, std::size_t& used) {
    static const http_parser_settings SETTINGS = Callbacks::make();
    used = http_parser_execute(_parser.get(), &SETTINGS, bytes.data(), bytes.size());
    const http_errno error = HTTP_PARSER_ERRNO(_parser.get());
    if (_state == State::INCOMPLETE && error != HPE_OK)
        refuse(BAD_REQUEST, error == HPE_INVALID_EOF_STATE ? EARLY_END : http_errno_description(error));
    else if (_state == State::INCOMPLETE && used < bytes.size())
        refuse(BAD_REQUEST, "it asks for another protocol");
    return _state;
}

int HttpReader::onField(std::string_view text) {
    if (_inValue) {
        _inValue = false;
        _field.clear();
        if (++_lines > MAX_HEADER_LINES) {
            refuse(HEADER_TOO_LARGE,
                   "its header has more than " + std::to_string(MAX_HEADER_LINES) + " lines");
            return STOP;
        }
    }
    _field += text;
    return 0;
}

int HttpReader::onValue(std::string_view text) {
    if (!_inValue) {
        _inValue = true;
        _field = StringHelper::toLower(_field);
        if (!_headers[_field].empty())
            _headers[_field] += ", "; // a line that stands there twice
    }
    _headers[_field] += text;
    return 0;
}

int HttpReader::onHeaders() {
    if (_kind == Kind::ANSWER && _parser->status_code / 100 == 1)
        return 0; // the real answer follows
    _headerComplete = true;
    if (_kind == Kind::ANSWER)
        _status = _parser->status_code;
    const int refusal = _check ? _check() : 0;
    if (refusal != 0)
        refuse(refusal, http_status_str(static_cast<http_status>(refusal)));
    else if (hasLength() && _parser->content_length > _maxBody)
        refuse(TOO_LARGE, "its body is larger than " + std::to_string(_maxBody) + " bytes");
    return _state == State::REFUSED ? STOP : 0;
}

int HttpReader::onBody(std::string_view text) {
    if (text.size() > _maxBody - _body.size()) {
        refuse(TOO_LARGE, "its body is larger than " + std::to_string(_maxBody) + " bytes");
        return STOP;
    }
    _body += text;
    return 0;
}

int HttpReader::onComplete() {
    if (!_headerComplete) { // an answer such as "100 Continue"
        _headers.clear();
        return 0;
    }
    _state = State::COMPLETE;
    http_parser_pause(_parser.get(), 1);
    return 0;
}

std::string HttpReader::getMethod() const {
    return http_method_str(static_cast<http_method>(_parser->method));
}

std::string HttpReader::urlField(unsigned field) const {
    http_parser_url url;
    http_parser_url_init(&url);
    if (http_parser_parse_url(_url.data(), _url.size(), 0, &url) != 0 || (url.field_set & (1u << field)) == 0)
        return {};
    return _url.substr(url.field_data[field].off, url.field_data[field].len);
}

std::string HttpReader::getPath() const {
    return urlField(UF_PATH);
}

std::string HttpReader::getQuery(std::string_view key) const {
    for (const std::string& pair : StringHelper::tokenize(urlField(UF_QUERY), "&"))
        if (pair.size() > key.size() && pair.starts_with(key) && pair[key.size()] == '=')
            return pair.substr(key.size() + 1);
    return {};
}

std::string HttpReader::getHeader(const std::string& name) const {
    const auto found = _headers.find(name);
    return found == _headers.end() ? std::string() : found->second;
}

bool HttpReader::isHttp11() const {
    return _parser->http_major == 1 && _parser->http_minor == 1;
}

bool HttpReader::hasLength() const {
    return (_parser->flags & F_CONTENTLENGTH) != 0;
}

} // namespace XmlRpc
