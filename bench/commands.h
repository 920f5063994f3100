// commands.h: shell commands and files to write, out of a file, done as the daemon does them. In plain C:
// bench-echo is to stay small.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>

// Writes a file whose path is a text's first line and whose content the rest of it.
inline bool write_file(const char* text)
{
    char path[256];
    const char* const end = std::strchr(text, '\n');
    if (end == nullptr || static_cast<std::size_t>(end - text) >= sizeof path)
        return false;
    std::memcpy(path, text, static_cast<std::size_t>(end - text));
    path[end - text] = '\0';
    FILE* const file = std::fopen(path, "we");
    return file != nullptr && std::fputs(end + 1, file) >= 0 && std::fclose(file) == 0;
}

// Runs the texts of a file, each of which ends with a NUL, one after the other with system(); a text that
// begins with '>' is a file to write instead. Returns the exit statuses of the commands, each with a blank
// before it, until the next call; null when a file cannot be read or written.
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
        if (*text == '>') {
            if (!write_file(text + 1))
                return nullptr;
            continue;
        }
        const int status = (std::system(text) >> 8) & 0xFF;
        length += static_cast<std::size_t>(
            std::snprintf(statuses + length, sizeof statuses - length, " %d", status));
    }
    return statuses;
}
