// small_files.h: files that are read and written in one piece.
#pragma once

#include <string>
#include <string_view>

// At most so many bytes are read of any file.
inline constexpr std::size_t LONGEST_FILE = 65536;

// Empty when the file cannot be read. No link is followed at its end.
std::string read_file(const std::string& path);
// A write that is cut short leaves the older file. False, with errno set, on failure.
bool replace_file(const std::string& path, std::string_view content);
