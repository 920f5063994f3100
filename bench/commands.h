// commands.h: shell commands out of a file, run as the daemon runs them. In plain C: bench-echo is to stay
// small.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>

// Runs the texts of a file, each of which ends with a NUL, one after the other with system(). Returns the
// exit statuses, each with a blank before it, until the next call; null when the file cannot be read.
inline const char* run_commands(const char* path)
{
    static char texts[65536];
    static char statuses[4096];
    FILE* const file = std::fopen(path, "re");
    if (file == nullptr)
        return nullptr;
    const char* const end = texts + std::fread(texts, 1, sizeof texts - 1, file);
    std::fclose(file);
    std::size_t length = 0;
    statuses[0] = '\0';
    for (const char* text = texts; text < end && length < sizeof statuses - 8;
         text += std::strlen(text) + 1) {
        const int status = (std::system(text) >> 8) & 0xFF;
        length += static_cast<std::size_t>(
            std::snprintf(statuses + length, sizeof statuses - length, " %d", status));
    }
    return statuses;
}
