// Option checking shared by the programs: each bad value is reported as one line naming the
// option, and the program exits with 2 before it opens anything.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace AppOptions {

// What is wrong with one option.
class BadOption : public std::runtime_error {
public:
    BadOption(const std::string& option, const std::string& problem)
        : std::runtime_error(option + ": " + problem) {}
};

// A value as it appears in a message: quoted, shortened, control characters escaped.
std::string shown(const std::string& text);

// A whole number in low..high: digits with an optional sign, nothing else, no overflow.
long long integerIn(const std::string& option, const std::string& text, long long low,
                    long long high);

// A finite decimal number in low..high.
double numberIn(const std::string& option, const std::string& text, double low, double high);

// A multicast group given as a numeric address.
std::string multicastGroup(const std::string& option, const std::string& text);

struct Address {
    std::string text;     // as given: "host:port"
    std::string host;     // without brackets
    std::string numeric;  // the host resolved to a numeric address
    unsigned short port = 0;
};

// "host:port,host:port", as the client backend's "servers" parameter reads it: the port after
// the last colon, an IPv6 host in brackets, at most 64 addresses, none twice. Each host must
// resolve.
std::vector<Address> addressList(const std::string& option, const std::string& text);

// Seconds as text for messages: "2.50 s".
std::string secondsText(double seconds);

}  // namespace AppOptions
