#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "Lirra/InetAddress.h"

namespace Lirra {

// Where servers make themselves known: a multicast group and port, the time-to-live of the
// announcements, the interface they leave and arrive by, and the announcing server's id.
// Settings may change at any time; the next announcement uses them.
class Multicast {
public:
    // An administratively scoped group: it does not leave the site.
    static constexpr const char* kDefaultGroup = "239.255.76.67";
    static constexpr unsigned short kDefaultPort = 7627;

    virtual ~Multicast() = default;

    InetAddress address() const { return read(_address); }
    void setAddress(const InetAddress& address) { store(_address, address); }
    unsigned short port() const { return read(_port); }
    void setPort(unsigned short port) { store(_port, port); }
    int ttl() const { return read(_ttl); }
    // From 0 to 255; false, with a log line and the time-to-live unchanged, for any other value.
    bool setTtl(int ttl);
    // The local interface's address; 0.0.0.0 lets the system choose.
    InetAddress interface() const { return read(_interface); }
    void setInterface(const InetAddress& address) { store(_interface, address); }
    int16_t id() const { return read(_id); }
    void setId(int16_t id) { store(_id, id); }
    // Off: nothing is sent to or read from the group.
    bool multicastEnabled() const { return read(_enabled); }
    void setMulticastEnabled(bool enabled) { store(_enabled, enabled); }

    // An announcement datagram: "KELO", version, the server's TCP port and id.
    struct Announcement {
        unsigned short port;
        int16_t id;
    };
    static std::vector<uint8_t> encodeAnnouncement(unsigned short port, int16_t id);
    static std::optional<Announcement> decodeAnnouncement(const uint8_t* bytes, size_t size);

private:
    template <typename T>
    T read(const T& member) const {
        std::lock_guard<std::mutex> lock(_mutex);
        return member;
    }
    template <typename T>
    void store(T& member, const T& value) {
        std::lock_guard<std::mutex> lock(_mutex);
        member = value;
    }

    mutable std::mutex _mutex;
    InetAddress _address{kDefaultGroup};
    unsigned short _port = kDefaultPort;
    int _ttl = 1;
    InetAddress _interface{"0.0.0.0"};
    int16_t _id = 0;
    bool _enabled = true;
};

}  // namespace Lirra
