#include "Tovan/SysInfo.h"

#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <vector>

namespace Tovan {

const SysInfo& SysInfo::the() {
    static const SysInfo info;
    return info;
}

SysInfo::SysInfo() {
    const uid_t uid = geteuid();
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        _user = found->pw_name;
    else
        _user = std::to_string(uid);

    char host[256] = {};
    if (gethostname(host, sizeof host - 1) == 0)
        _host = host;

    utsname names{};
    if (uname(&names) == 0)
        _system = std::string(names.sysname) + " " + names.release + " " + names.machine;
}

}  // namespace Tovan
