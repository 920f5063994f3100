// core/owned.h: one owner type for each kind of resource that comes from C, from the line on which it is
// born.
#pragma once

#include <cjson/cJSON.h>
#include <glib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

template <auto release> struct Releaser {
    template <typename T> void operator()(T* resource) const { release(resource); }
};

// A cJSON item with all that hangs below it.
using OwnedJson = std::unique_ptr<cJSON, Releaser<cJSON_Delete>>;
// A text from GLib (g_strdup and its like).
using OwnedText = std::unique_ptr<char, Releaser<g_free>>;
// A text from malloc: what cJSON prints and what the platform hands over.
using OwnedMallocText = std::unique_ptr<char, Releaser<std::free>>;
// A null-terminated array of GLib texts.
using OwnedStringArray = std::unique_ptr<char*, Releaser<g_strfreev>>;
using OwnedFile = std::unique_ptr<FILE, Releaser<std::fclose>>;

class OwnedDescriptor {
public:
    OwnedDescriptor() = default;
    explicit OwnedDescriptor(int descriptor) : descriptor_(descriptor) {}
    OwnedDescriptor(OwnedDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept
    {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    OwnedDescriptor(const OwnedDescriptor&) = delete;
    OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;
    ~OwnedDescriptor()
    {
        if (descriptor_ >= 0)
            ::close(descriptor_);
    }

    int get() const { return descriptor_; }
    // For a new owner, such as a stream made of the descriptor.
    int release() { return std::exchange(descriptor_, -1); }
    bool is_open() const { return descriptor_ >= 0; }

private:
    int descriptor_ = -1;
};
