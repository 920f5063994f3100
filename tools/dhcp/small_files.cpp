#include "small_files.h"

#include "core/owned.h"

#include <fcntl.h>

std::string read_file(const std::string& path)
{
    const OwnedDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    std::string content(LONGEST_FILE, '\0');
    const ssize_t count = file.is_open() ? read(file.get(), content.data(), content.size()) : -1;
    content.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return content;
}

bool replace_file(const std::string& path, std::string_view content)
{
    const std::string draft = path + ".new";
    const OwnedDescriptor file(
        open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    return file.is_open() &&
           write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
           rename(draft.c_str(), path.c_str()) == 0;
}
