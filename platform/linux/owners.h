// owners.h: owners of what comes from C libraries, from the line on which it is born.
#pragma once

#include <glib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace platform {

template <auto release> struct Release {
    template <typename T> void operator()(T* resource) const { release(resource); }
};

using GlibText = std::unique_ptr<char, Release<g_free>>;
using MallocText = std::unique_ptr<char, Release<std::free>>;
using File = std::unique_ptr<FILE, Release<std::fclose>>;
using KeyFile = std::unique_ptr<GKeyFile, Release<g_key_file_unref>>;

class Descriptor {
public:
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (descriptor_ >= 0)
            ::close(descriptor_);
    }

    int get() const { return descriptor_; }
    bool is_open() const { return descriptor_ >= 0; }

private:
    const int descriptor_;
};

// The error of one GLib call: pass out(), read text().
class GlibError {
public:
    GlibError() = default;
    GlibError(const GlibError&) = delete;
    GlibError& operator=(const GlibError&) = delete;
    ~GlibError() { g_clear_error(&error_); }

    GError** out() { return &error_; }
    const char* text() const { return error_ != nullptr ? error_->message : "no error"; }
    bool matches(GQuark domain, int code) const { return g_error_matches(error_, domain, code); }

private:
    GError* error_ = nullptr;
};

} // namespace platform
