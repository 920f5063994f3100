// surroundings.h: what the fuzz targets share. A target holds a daemon's store in a scratch directory that
// goes when the process ends; a broken promise aborts, which the fuzzer counts as a crash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Called by the fuzzer, or by the replay, with one input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Opens log and store at the first call.
void open_surroundings();

// The input up to its first zero byte, as the bus hands texts over.
std::string text_of(const std::uint8_t* data, std::size_t size);

void require(bool promise, const char* what);
// The text is a response of the documented form, in characters that the bus carries.
void require_response(const char* text);
