// Feeds arbitrary text to the URL parser, alone and relative to a base. It only parses: nothing
// is fetched, nothing written. Besides not crashing or throwing anything but the parse error: a
// parsed URL's text parses to the same URL, and the form shown on pages and in logs carries no
// user name or password, nor does the form for messages about text that was refused.
#include <cstdint>
#include <memory>
#include <string>

#include <curl/curl.h>

#include <Lirra/URL.h>

namespace {

using Lirra::URLImpl;

const Lirra::URL& base() {
    static const Lirra::URL url(URLImpl::create("file:///srv/sounds/", nullptr));
    return url;
}

// Whether libcurl reads a user name or a password in text.
bool hasUserInfo(const std::string& text) {
    CURLU* handle = curl_url();
    if (!handle)
        return false;
    bool found = false;
    if (curl_url_set(handle, CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK)
        for (const CURLUPart part : {CURLUPART_USER, CURLUPART_PASSWORD}) {
            char* value = nullptr;
            if (curl_url_get(handle, part, &value, 0) == CURLUE_OK && value && *value)
                found = true;
            curl_free(value);
        }
    curl_url_cleanup(handle);
    return found;
}

std::shared_ptr<const URLImpl> parse(const std::string& text, const Lirra::URL* against) {
    try {
        return URLImpl::create(text, against);
    } catch (const URLImpl::Exception&) {
        return nullptr;
    }
}

void check(const std::shared_ptr<const URLImpl>& url) {
    if (!url)
        return;
    if (url->scheme().empty() || hasUserInfo(url->displayString()))
        __builtin_trap();
    const auto again = parse(url->toString(), nullptr);
    if (!again || again->toString() != url->toString() || again->scheme() != url->scheme() ||
        again->host() != url->host() || again->path() != url->path() ||
        again->displayString() != url->displayString())
        __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    check(parse(text, nullptr));
    check(parse(text, &base()));
    // The form for messages about text that did not parse.
    const std::string shown = URLImpl::withoutUserInfo(text);
    if (shown.size() > text.size() || hasUserInfo(shown))
        __builtin_trap();
    return 0;
}
