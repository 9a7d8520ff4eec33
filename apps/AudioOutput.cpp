#include "AudioOutput.h"

#include <AL/alc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

std::string writtenConf;

// Asked in a child process, so that this one has made no OpenAL call yet.
bool defaultDeviceOpens() {
    const pid_t child = fork();
    if (child == 0) {
        std::freopen("/dev/null", "w", stderr);  // the drivers' own complaints
        _exit(alcOpenDevice(nullptr) ? 0 : 1);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

}  // namespace

std::string chooseAudioOutput(const std::string& wavFile) {
    if (std::getenv("ALSOFT_CONF") || defaultDeviceOpens())
        return "";
    std::string wav;
    try {  // an unusable TMPDIR or working directory must not end the program
        wav = std::filesystem::absolute(wavFile).string();
        writtenConf = (std::filesystem::temp_directory_path() /
                       ("kelo-" + std::to_string(getpid()) + ".alsoft.conf"))
                          .string();
    } catch (const std::filesystem::filesystem_error& e) {
        std::fprintf(stderr, "Cannot arrange rendering into %s: %s\n", wavFile.c_str(), e.what());
        writtenConf.clear();
        return "";
    }
    std::ofstream conf(writtenConf);
    // No rate: OpenAL Soft's default (44100 Hz) unless the backend asks for another.
    conf << "[general]\ndrivers=wave\nchannels=stereo\nsample-type=int16\n"
            "[wave]\nfile="
         << wav << "\n";
    if (!conf.flush()) {
        std::fprintf(stderr, "Cannot write %s\n", writtenConf.c_str());
        forgetAudioOutput();
        return "";
    }
    setenv("ALSOFT_CONF", writtenConf.c_str(), 1);
    return wav;
}

void forgetAudioOutput() {
    if (!writtenConf.empty())
        std::remove(writtenConf.c_str());
    writtenConf.clear();
}
