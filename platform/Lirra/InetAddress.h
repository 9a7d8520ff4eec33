#pragma once

#include <string>

namespace Lirra {

// An IPv4 or IPv6 address in its textual form.
class InetAddress {
public:
    InetAddress() = default;
    explicit InetAddress(std::string text) : _text(std::move(text)) {}

    const std::string& toString() const { return _text; }
    // Whether the text is a numeric IPv4 or IPv6 address.
    bool valid() const;
    bool isMulticast() const;
    bool operator==(const InetAddress& other) const { return _text == other._text; }

    // This machine's host name; "localhost" when the system cannot say.
    static std::string getLocalHostName();

private:
    std::string _text = "0.0.0.0";
};

}  // namespace Lirra
