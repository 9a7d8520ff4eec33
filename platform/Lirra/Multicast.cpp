#include "Lirra/Multicast.h"

#include <cstring>

#include "Lirra/Log.h"

namespace Lirra {

namespace {
constexpr uint8_t kMagic[8] = {'K', 'E', 'L', 'O', 1, 0, 0, 0};
}

bool Multicast::setTtl(int ttl) {
    if (ttl < 0 || ttl > 255) {
        LIRRA_LOG(osg::LOG_WARNING, "Ignored a multicast time-to-live of %d: from 0 to 255\n", ttl);
        return false;
    }
    store(_ttl, ttl);
    return true;
}

std::vector<uint8_t> Multicast::encodeAnnouncement(unsigned short port, int16_t id) {
    std::vector<uint8_t> out(kMagic, kMagic + 8);
    const auto uid = static_cast<uint16_t>(id);
    for (uint16_t v : {static_cast<uint16_t>(port), uid}) {
        out.push_back(static_cast<uint8_t>(v & 0xff));
        out.push_back(static_cast<uint8_t>(v >> 8));
    }
    return out;
}

std::optional<Multicast::Announcement> Multicast::decodeAnnouncement(const uint8_t* bytes,
                                                                     size_t size) {
    if (size != 12 || std::memcmp(bytes, kMagic, 8) != 0)
        return std::nullopt;
    const auto port = static_cast<unsigned short>(bytes[8] | bytes[9] << 8);
    const auto id = static_cast<int16_t>(static_cast<uint16_t>(bytes[10] | bytes[11] << 8));
    if (port == 0)
        return std::nullopt;
    return Announcement{port, id};
}

}  // namespace Lirra
