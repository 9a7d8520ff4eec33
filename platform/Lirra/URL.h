#pragma once

#include <memory>
#include <stdexcept>
#include <string>

namespace Lirra {

class URL;

// A resource fetched to the local file system. For a file: URL it is the file itself and is
// left alone; a download lives in a temporary file that is deleted with this object.
class LocalFile {
public:
    LocalFile() = default;
    LocalFile(std::string path, bool temporary) : _path(std::move(path)), _temporary(temporary) {}
    LocalFile(LocalFile&& other) noexcept;
    LocalFile& operator=(LocalFile&& other) noexcept;
    LocalFile(const LocalFile&) = delete;
    LocalFile& operator=(const LocalFile&) = delete;
    ~LocalFile();

    const std::string& path() const { return _path; }
    bool temporary() const { return _temporary; }

private:
    std::string _path;
    bool _temporary = false;
};

// A parsed, absolute URL. Shared between handles; immutable once made.
class URLImpl {
public:
    class Exception : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // Parses text, resolving a relative reference against base (may be null). Throws
    // Exception("Cannot parse URL") for text that is not a URL. The result is a URLFile for
    // file:, a URLHttp for http: and https:, a plain URLImpl (which cannot fetch) otherwise.
    static std::shared_ptr<const URLImpl> create(const std::string& text, const URL* base);

    virtual ~URLImpl() = default;

    // The whole URL, credentials included: what a fetch uses.
    const std::string& toString() const { return _text; }
    // The URL without its user information ("user:password@"): the form for pages and logs.
    const std::string& displayString() const { return _displayString; }
    const std::string& scheme() const { return _scheme; }
    const std::string& host() const { return _host; }
    // Percent-decoded path.
    const std::string& path() const { return _path; }

    // Makes the resource available as a local file. Throws Exception with a message naming
    // the URL and the reason when it cannot.
    virtual LocalFile fetch() const;

    // Text that may or may not parse as a URL with any user information removed, for messages
    // about text that was refused.
    static std::string withoutUserInfo(const std::string& text);

protected:
    URLImpl(std::string text, std::string displayString, std::string scheme, std::string host,
            std::string path);

private:
    std::string _text;
    std::string _displayString;
    std::string _scheme;
    std::string _host;
    std::string _path;
};

class URLFile : public URLImpl {
public:
    // The current directory when the library was loaded, as a file: URL ending in '/'.
    // Relative texts given to the library are resolved against it.
    static URL _cwd;

    LocalFile fetch() const override;

private:
    friend class URLImpl;
    using URLImpl::URLImpl;
};

class URLHttp : public URLImpl {
public:
    // Whole-transfer limit of a download, in milliseconds.
    static long _timeoutMs;

    LocalFile fetch() const override;

private:
    friend class URLImpl;
    using URLImpl::URLImpl;
};

// A handle sharing one URLImpl.
class URL {
public:
    explicit URL(std::shared_ptr<const URLImpl> impl) : _impl(std::move(impl)) {}
    // Parses text resolved against URLFile::_cwd; throws URLImpl::Exception.
    explicit URL(const std::string& text);
    URL(const std::string& text, const URL& base);

    const URLImpl& impl() const { return *_impl; }
    const std::shared_ptr<const URLImpl>& shared() const { return _impl; }
    const std::string& toString() const { return _impl->toString(); }
    const std::string& displayString() const { return _impl->displayString(); }
    LocalFile fetch() const { return _impl->fetch(); }

    // The process's current directory as a file: URL ending in '/'.
    static URL currentDirectory();

private:
    std::shared_ptr<const URLImpl> _impl;
};

}  // namespace Lirra
