#include "Lirra/URL.h"

#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

namespace Lirra {

namespace {

using Exception = URLImpl::Exception;

struct CurlUrlDeleter {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using CurlUrlPtr = std::unique_ptr<CURLU, CurlUrlDeleter>;

struct CurlEasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using CurlEasyPtr = std::unique_ptr<CURL, CurlEasyDeleter>;

struct CurlFreeDeleter {
    void operator()(char* text) const { curl_free(text); }
};
using CurlString = std::unique_ptr<char, CurlFreeDeleter>;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

[[noreturn]] void cannotParse() {
    throw Exception("Cannot parse URL");
}

CurlUrlPtr newUrlHandle() {
    CurlUrlPtr handle(curl_url());
    if (!handle) {
        throw std::bad_alloc();
    }
    return handle;
}

void setPart(CURLU* handle, CURLUPart part, const std::string& value, unsigned flags) {
    if (curl_url_set(handle, part, value.c_str(), flags) != CURLUE_OK) {
        cannotParse();
    }
}

// Empty when the URL lacks the part or libcurl cannot produce it (e.g. it refuses to decode
// an escaped control character).
std::optional<std::string> getPart(CURLU* handle, CURLUPart part, unsigned flags) {
    char* raw = nullptr;
    const CURLUcode rc = curl_url_get(handle, part, &raw, flags);
    const CurlString owned(raw);
    if (rc != CURLUE_OK || !raw) {
        return std::nullopt;
    }
    return std::string(raw);
}

// ASCII-only on purpose: URL syntax does not depend on the locale.
bool isAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isHexDigit(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Catches what libcurl lets through: it takes "1ab:x" for a relative path and keeps a stray
// '%' as it is, which would decode to something the user never wrote.
void checkText(const std::string& text) {
    if (text.empty()) {
        cannotParse();
    }
    // A ':' before any '/', '?' or '#' ends a scheme, so what precedes it must be one.
    const std::size_t colon = text.find_first_of(":/?#");
    if (colon != std::string::npos && text[colon] == ':') {
        if (colon == 0 || !isAlpha(text[0])) {
            cannotParse();
        }
        for (std::size_t i = 1; i < colon; ++i) {
            const char c = text[i];
            if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') {
                cannotParse();
            }
        }
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' &&
            (i + 2 >= text.size() || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2]))) {
            cannotParse();
        }
    }
}

std::string temporaryDirectory() {
    const char* dir = std::getenv("TMPDIR");
    return dir && *dir ? dir : "/tmp";
}

// Deletes a download that is not handed over to the caller, whichever way fetch() leaves.
class TemporaryPath {
public:
    explicit TemporaryPath(std::string path) : _path(std::move(path)) {}
    TemporaryPath(const TemporaryPath&) = delete;
    TemporaryPath& operator=(const TemporaryPath&) = delete;
    ~TemporaryPath() {
        if (!_released) {
            std::remove(_path.c_str());
        }
    }

    const std::string& path() const { return _path; }
    std::string release() {
        _released = true;
        return _path;
    }

private:
    std::string _path;
    bool _released = false;
};

// Stops at the first option libcurl refuses, so the transfer never runs half-configured.
template <typename T>
void setOption(CURL* curl, CURLoption option, T value, CURLcode& rc) {
    if (rc == CURLE_OK) {
        rc = curl_easy_setopt(curl, option, value);
    }
}

void initCurl() {
    static std::once_flag once;
    // A throw leaves the flag unset, so a later fetch tries again.
    std::call_once(once, [] {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
            throw Exception("Cannot initialise libcurl");
        }
    });
}

// The URL in handle without user name, password and login options; url is the whole text,
// taken when libcurl cannot make the shorter one.
std::string displayOf(CURLU* handle, const std::string& url) {
    CurlUrlPtr copy(curl_url_dup(handle));
    if (!copy) {
        throw std::bad_alloc();
    }
    for (const CURLUPart part : {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS}) {
        curl_url_set(copy.get(), part, nullptr, 0);
    }
    std::optional<std::string> shown = getPart(copy.get(), CURLUPART_URL, 0);
    return shown ? std::move(*shown) : URLImpl::withoutUserInfo(url);
}

}  // namespace

// LocalFile

LocalFile::LocalFile(LocalFile&& other) noexcept
    : _path(std::move(other._path)), _temporary(std::exchange(other._temporary, false)) {
    other._path.clear();
}

LocalFile& LocalFile::operator=(LocalFile&& other) noexcept {
    if (this != &other) {
        if (_temporary) {
            std::remove(_path.c_str());
        }
        _path = std::move(other._path);
        _temporary = std::exchange(other._temporary, false);
        other._path.clear();
    }
    return *this;
}

LocalFile::~LocalFile() {
    if (_temporary && !_path.empty()) {
        std::remove(_path.c_str());
    }
}

// URLImpl

URLImpl::URLImpl(std::string text, std::string displayString, std::string scheme, std::string host,
                 std::string path)
    : _text(std::move(text)),
      _displayString(std::move(displayString)),
      _scheme(std::move(scheme)),
      _host(std::move(host)),
      _path(std::move(path)) {}

std::shared_ptr<const URLImpl> URLImpl::create(const std::string& text, const URL* base) {
    checkText(text);

    CurlUrlPtr handle = newUrlHandle();
    // Any scheme parses (such a URL just cannot be fetched), and spaces and non-ASCII bytes,
    // common in file names, are escaped instead of refused.
    const unsigned flags = CURLU_NON_SUPPORT_SCHEME | CURLU_URLENCODE;
    if (base) {
        setPart(handle.get(), CURLUPART_URL, base->toString(), flags);
    }
    // With a URL already in the handle, libcurl resolves a relative reference against it;
    // without one, relative text fails for lack of a scheme.
    setPart(handle.get(), CURLUPART_URL, text, flags);

    std::optional<std::string> url = getPart(handle.get(), CURLUPART_URL, 0);
    std::optional<std::string> scheme = getPart(handle.get(), CURLUPART_SCHEME, 0);
    std::optional<std::string> path = getPart(handle.get(), CURLUPART_PATH, CURLU_URLDECODE);
    if (!url || !scheme || !path) {
        cannotParse();
    }
    // What libcurl makes of a relative reference is not always text it reads back (a first
    // segment "c:" in a file path, say): a URL whose text does not parse to itself is none.
    checkText(*url);
    CurlUrlPtr again = newUrlHandle();
    setPart(again.get(), CURLUPART_URL, *url, flags);
    if (getPart(again.get(), CURLUPART_URL, 0) != url) {
        cannotParse();
    }
    std::string host = getPart(handle.get(), CURLUPART_HOST, 0).value_or("");
    std::string shown = displayOf(handle.get(), *url);
    // libcurl hands the scheme back in lower case.
    std::string lowerScheme = std::move(*scheme);

    const bool http = lowerScheme == "http" || lowerScheme == "https";
    if (http && host.empty()) {
        cannotParse();
    }
    // libcurl takes "file:b/x.wav" for a file URL with a relative path, which names no file and
    // whose text it then refuses.
    if (lowerScheme == "file" && (path->empty() || (*path)[0] != '/')) {
        cannotParse();
    }
    // The constructors are not public, hence new instead of make_shared.
    if (lowerScheme == "file") {
        return std::shared_ptr<const URLImpl>(new URLFile(std::move(*url), std::move(shown),
                                                          std::move(lowerScheme), std::move(host),
                                                          std::move(*path)));
    }
    if (http) {
        return std::shared_ptr<const URLImpl>(new URLHttp(std::move(*url), std::move(shown),
                                                          std::move(lowerScheme), std::move(host),
                                                          std::move(*path)));
    }
    return std::shared_ptr<const URLImpl>(new URLImpl(std::move(*url), std::move(shown),
                                                      std::move(lowerScheme), std::move(host),
                                                      std::move(*path)));
}

LocalFile URLImpl::fetch() const {
    throw Exception("Cannot fetch " + _displayString + ": unsupported scheme");
}

namespace {

// Text with the user information of its first authority removed; the text itself when it has
// none.
std::string removeUserInfo(const std::string& text) {
    // The authority follows the scheme and any slashes (libcurl takes one, two or more, and no
    // slash at all), or a leading "//"; it ends at the next slash, '?' or '#'. User
    // information is everything in it up to its last '@'.
    std::size_t start = 0;
    const std::size_t colon = text.find_first_of(":/?#\\");
    // Whatever precedes the first ':' counts as a scheme here: libcurl is lenient about them.
    if (colon != std::string::npos && text[colon] == ':') {
        start = colon + 1;
    } else if (text.compare(0, 2, "//") != 0) {
        return text;
    }
    start = std::min(text.find_first_not_of("/\\", start), text.size());
    // A backslash does not end the authority for libcurl ("ftp://a:b\c@h/p" has the
    // password "b\c"); where it does, going on to the next '/' only hides more.
    const std::size_t end = std::min(text.find_first_of("/?#", start), text.size());
    const std::size_t at = text.rfind('@', end == 0 ? 0 : end - 1);
    if (at == std::string::npos || at < start || at >= end) {
        return text;
    }
    return text.substr(0, start) + text.substr(at + 1);
}

}  // namespace

std::string URLImpl::withoutUserInfo(const std::string& text) {
    // Removing one may join slashes into a new authority ("h:/u@/v@h"): until none is left.
    // Each round shortens the text.
    std::string shown = text;
    for (std::string shorter = removeUserInfo(shown); shorter != shown;
         shorter = removeUserInfo(shown)) {
        shown = std::move(shorter);
    }
    return shown;
}

// URLFile

LocalFile URLFile::fetch() const {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path(), error) || ::access(path().c_str(), R_OK) != 0) {
        throw Exception("Cannot fetch " + displayString() + ": no such file");
    }
    return LocalFile(path(), false);
}

// URLHttp

long URLHttp::_timeoutMs = 30000;

LocalFile URLHttp::fetch() const {
    initCurl();
    const auto failure = [this](const std::string& reason) {
        return Exception("Cannot fetch " + displayString() + ": " + reason);
    };

    std::string pattern = temporaryDirectory() + "/KeloURL-XXXXXX";
    const int fd = ::mkstemp(pattern.data());
    if (fd < 0) {
        throw failure("cannot create a temporary file " + pattern + ": " + std::strerror(errno));
    }
    TemporaryPath download(pattern);
    FilePtr file(::fdopen(fd, "wb"));
    if (!file) {
        ::close(fd);
        throw failure("cannot open " + download.path() + ": " + std::strerror(errno));
    }

    CurlEasyPtr curl(curl_easy_init());
    if (!curl) {
        throw failure("cannot start a transfer");
    }
    char error[CURL_ERROR_SIZE] = "";
    const std::string url = toString();
    CURLcode rc = CURLE_OK;
    setOption(curl.get(), CURLOPT_ERRORBUFFER, error, rc);
    setOption(curl.get(), CURLOPT_URL, url.c_str(), rc);
    // Redirects may not lead to file: or other schemes the caller did not ask for.
    setOption(curl.get(), CURLOPT_PROTOCOLS_STR, "http,https", rc);
    setOption(curl.get(), CURLOPT_REDIR_PROTOCOLS_STR, "http,https", rc);
    setOption(curl.get(), CURLOPT_FOLLOWLOCATION, 1L, rc);
    setOption(curl.get(), CURLOPT_MAXREDIRS, 5L, rc);
    setOption(curl.get(), CURLOPT_FAILONERROR, 1L, rc);
    setOption(curl.get(), CURLOPT_TIMEOUT_MS, _timeoutMs, rc);
    // Timeouts must not rely on SIGALRM: fetches may run on any thread.
    setOption(curl.get(), CURLOPT_NOSIGNAL, 1L, rc);
    // libcurl's default write callback fwrite()s to this FILE.
    setOption(curl.get(), CURLOPT_WRITEDATA, file.get(), rc);
    if (rc == CURLE_OK) {
        rc = curl_easy_perform(curl.get());
    }

    if (rc == CURLE_HTTP_RETURNED_ERROR) {
        long status = 0;
        curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
        throw failure("HTTP " + std::to_string(status));
    }
    if (rc != CURLE_OK) {
        throw failure(error[0] ? error : curl_easy_strerror(rc));
    }
    // A full disk may only show when the buffered tail is written out.
    if (std::fclose(file.release()) != 0) {
        throw failure("cannot write " + download.path() + ": " + std::strerror(errno));
    }
    return LocalFile(download.release(), true);
}

// URL

URL::URL(const std::string& text) : _impl(URLImpl::create(text, &URLFile::_cwd)) {}

URL::URL(const std::string& text, const URL& base) : _impl(URLImpl::create(text, &base)) {}

URL URL::currentDirectory() {
    std::error_code error;
    std::string dir = std::filesystem::current_path(error).string();
    if (error) {
        throw URLImpl::Exception("Cannot get the current directory: " + error.message());
    }
    if (dir.empty() || dir.back() != '/') {
        dir += '/';
    }
    // libcurl escapes everything in the path but the slashes, '%' included.
    CurlUrlPtr handle = newUrlHandle();
    setPart(handle.get(), CURLUPART_SCHEME, "file", 0);
    setPart(handle.get(), CURLUPART_PATH, dir, CURLU_URLENCODE);
    std::optional<std::string> text = getPart(handle.get(), CURLUPART_URL, 0);
    if (!text) {
        cannotParse();
    }
    return URL(URLImpl::create(*text, nullptr));
}

namespace {

// Runs during static initialisation, where a throw would abort the program: a process
// started in a directory that has since been removed gets the root instead.
URL initialDirectory() {
    try {
        return URL::currentDirectory();
    } catch (const URLImpl::Exception&) {
        return URL(URLImpl::create("file:///", nullptr));
    }
}

}  // namespace

// Other files of the library may resolve URLs while their own statics are initialised, so
// _cwd is set up ahead of them. It depends on nothing but libcurl and the C++ runtime, which
// are loaded and initialised before this library.
#if defined(__GNUC__)
URL URLFile::_cwd __attribute__((init_priority(101))) = initialDirectory();
#else
URL URLFile::_cwd = initialDirectory();
#endif

}  // namespace Lirra
