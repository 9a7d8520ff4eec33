#pragma once

#include <string>

// Chooses where OpenAL renders, before the first OpenAL call of the process (OpenAL Soft reads
// its configuration once). With a sound device: there. Without one: OpenAL Soft's wave writer,
// into wavFile, in real time. Returns the file's absolute path in that case, else "".
// An ALSOFT_CONF that the user set is left alone.
std::string chooseAudioOutput(const std::string& wavFile);

// Removes the configuration file that chooseAudioOutput() wrote, if any.
void forgetAudioOutput();
