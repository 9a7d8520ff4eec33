#pragma once

#include <string>

namespace Tovan {

// What the process runs as and on: user, host and operating system, read once.
class SysInfo {
public:
    static const SysInfo& the();

    SysInfo(const SysInfo&) = delete;
    SysInfo& operator=(const SysInfo&) = delete;

    // The login name of the effective user (its number when it has no name).
    const std::string& user() const { return _user; }
    const std::string& host() const { return _host; }
    // Kernel name, release and machine, e.g. "Linux 6.1.0-18-amd64 x86_64".
    const std::string& system() const { return _system; }

private:
    SysInfo();

    std::string _user;
    std::string _host;
    std::string _system;
};

}  // namespace Tovan
