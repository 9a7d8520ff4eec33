#include "AppOptions.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <set>

#include <netdb.h>
#include <sys/socket.h>

#include <Lirra/InetAddress.h>

namespace AppOptions {

std::string shown(const std::string& text) {
    std::string out = "\"";
    for (size_t i = 0; i < text.size() && i < 64; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7f || c == '"' || c == '\\') {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + (text.size() > 64 ? "...\"" : "\"");
}

long long integerIn(const std::string& option, const std::string& text, long long low,
                    long long high) {
    const size_t digits = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
    if (text.size() == digits || text.find_first_not_of("0123456789", digits) != std::string::npos)
        throw BadOption(option, shown(text) + " is not a whole number");
    errno = 0;
    const long long value = std::strtoll(text.c_str(), nullptr, 10);
    if (errno == ERANGE || value < low || value > high)
        throw BadOption(option, (text.size() > 24 ? shown(text) : text) + " is not in " +
                                    std::to_string(low) + ".." + std::to_string(high));
    return value;
}

double numberIn(const std::string& option, const std::string& text, double low, double high) {
    char* end = nullptr;
    const double value = text.empty() || std::isspace(static_cast<unsigned char>(text[0]))
                             ? NAN
                             : std::strtod(text.c_str(), &end);
    if (!end || *end != '\0' || !std::isfinite(value))
        throw BadOption(option, shown(text) + " is not a number");
    if (value < low || value > high) {
        char range[64];
        std::snprintf(range, sizeof range, "%g..%g", low, high);
        throw BadOption(option, (text.size() > 24 ? shown(text) : text) + " is not in " + range);
    }
    return value;
}

std::string multicastGroup(const std::string& option, const std::string& text) {
    const Lirra::InetAddress group(text);
    if (!group.valid())
        throw BadOption(option, shown(text) + " is not a numeric IPv4 or IPv6 address");
    if (!group.isMulticast())
        throw BadOption(option, text + " is not a multicast address");
    return text;
}

namespace {

// The first address the name resolves to, numeric; empty with why when it does not.
std::string resolve(const std::string& host, std::string& why) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (error != 0 || !found) {
        why = gai_strerror(error);
        return "";
    }
    char text[NI_MAXHOST] = "";
    const int named = getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0,
                                  NI_NUMERICHOST);
    freeaddrinfo(found);
    if (named != 0) {
        why = gai_strerror(named);
        return "";
    }
    return text;
}

}  // namespace

std::vector<Address> addressList(const std::string& option, const std::string& text) {
    constexpr size_t kMaxAddresses = 64;  // what one client backend serves
    if (text.empty())
        throw BadOption(option, "no address given (host:port,host:port)");
    std::vector<Address> out;
    std::set<std::pair<std::string, unsigned short>> seen;
    size_t at = 0;
    while (at <= text.size()) {
        size_t comma = text.find(',', at);
        if (comma == std::string::npos)
            comma = text.size();
        Address address;
        address.text = text.substr(at, comma - at);
        at = comma + 1;
        const size_t colon = address.text.rfind(':');
        if (colon == std::string::npos || colon == 0)
            throw BadOption(option, shown(address.text) + " is not host:port");
        address.port = static_cast<unsigned short>(
            integerIn(option, address.text.substr(colon + 1), 1, 65535));
        address.host = address.text.substr(0, colon);
        if (address.host.size() > 2 && address.host.front() == '[' && address.host.back() == ']')
            address.host = address.host.substr(1, address.host.size() - 2);
        std::string why;
        address.numeric = resolve(address.host, why);
        if (address.numeric.empty())
            throw BadOption(option, "cannot resolve " + shown(address.host) + ": " + why);
        if (!seen.insert({address.numeric, address.port}).second)
            throw BadOption(option, address.text + " is named twice");
        if (out.size() == kMaxAddresses)
            throw BadOption(option, "more than " + std::to_string(kMaxAddresses) + " addresses");
        out.push_back(std::move(address));
    }
    return out;
}

std::string secondsText(double seconds) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f s", seconds);
    return text;
}

}  // namespace AppOptions
