// surroundings.h: what the fuzz targets share. A target holds a daemon's store in a scratch directory that
// goes when the process ends; a broken promise aborts, which the fuzzer counts as a crash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Called by the fuzzer, or by the replay, with one input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Opens log and store at the first call.
void open_surroundings();

// The input up to its first zero byte, as the bus hands texts over.
std::string text_of(const std::uint8_t* data, std::size_t size);

// What is left of an input, taken from its front; past its end there are zero bytes and empty texts.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : left_(reinterpret_cast<const char*>(data), size) {}

    bool is_empty() const { return left_.empty(); }
    std::uint8_t take_byte();
    // Low byte first.
    std::size_t take_number();
    std::string take(std::size_t size);
    std::string take_rest() { return take(left_.size()); }

private:
    std::string_view left_;
};

// A file of the scratch directory, which is the daemon's state and configuration directory.
std::string scratch_path(std::string_view name);
void write_scratch_file(std::string_view name, std::string_view content);
// Empty when there is no such file.
std::string read_scratch_file(std::string_view name);
void empty_scratch();

void require(bool promise, const char* what);
// The text is a response of the documented form, in characters that the bus carries.
void require_response(const char* text);
