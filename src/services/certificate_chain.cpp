#include "services/certificate_chain.h"

#include "core/log.h"
#include "core/owned.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>

namespace {

constexpr std::size_t BLOCK_SIZE = 512;
// More than any chain; a device or an endless file must not fill /tmp.
constexpr std::size_t LARGEST_FILE = std::size_t{1} << 20;

bool copy_file(const OwnedDescriptor& output, const char* path)
{
    const OwnedDescriptor input(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!input.is_open()) {
        log_message(LEVEL_CRITICAL, "%s:%d: Could not open file: %s", HERE, path);
        return false;
    }
    std::array<char, BLOCK_SIZE> block;
    for (std::size_t copied = 0; copied <= LARGEST_FILE;) {
        const ssize_t count = read(input.get(), block.data(), block.size());
        if (count <= 0)
            return count == 0;
        if (write(output.get(), block.data(), static_cast<std::size_t>(count)) <= 0)
            return false;
        copied += static_cast<std::size_t>(count);
    }
    return false;
}

// The key is in it: nobody else may read it, whatever the umask was. Not blocking on a planted FIFO.
OwnedDescriptor create_chain_file(const char* path)
{
    const mode_t umask_before = umask(077);
    OwnedDescriptor file(
        open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0664));
    umask(umask_before);
    return file;
}

} // namespace

const char* generate_certificate_chain(const char* certificate, const char* authority, const char* output)
{
    if (certificate == nullptr || authority == nullptr) {
        log_message(LEVEL_CRITICAL,
                    "%s:%d: ssl certificate or ssl_authority file missing for cert chain generation", HERE);
        return nullptr;
    }
    const OwnedDescriptor file = create_chain_file(output);
    if (!file.is_open()) {
        log_message(LEVEL_CRITICAL, "%s:%d: Could not open ssl cert chain file %s", HERE, output);
        return nullptr;
    }
    if (!copy_file(file, certificate)) {
        log_message(LEVEL_CRITICAL, "%s:%d: Could not copy ssl_certificate file: %s", HERE, certificate);
        return nullptr;
    }
    fsync(file.get());
    if (write(file.get(), "\n", 1) != 1)
        return nullptr;
    fsync(file.get());
    if (!copy_file(file, authority)) {
        log_message(LEVEL_CRITICAL, "%s:%d: Could not copy ssl_authority certificate file: %s", HERE,
                    authority);
        return nullptr;
    }
    return output;
}
