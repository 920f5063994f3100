#include "last_report.h"

#include "core/log.h"
#include "small_files.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr char FOLDER[] = "/run/quarn";

// Only root's own folder is used: what stands in it decides what is told to the daemon.
bool make_folder()
{
    struct stat status = {};
    mkdir(FOLDER, 0700);
    return lstat(FOLDER, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
           ((status.st_mode & 077) == 0 || chmod(FOLDER, 0700) == 0);
}

std::string path_of(const char* name)
{
    return std::string(FOLDER) + "/" + name;
}

} // namespace

LastReport read_last_report(const char* name)
{
    if (!make_folder())
        return {};
    const std::string content = read_file(path_of(name));
    const OwnedJson report(cJSON_ParseWithLength(content.data(), content.size()));
    const char* mark = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(report.get(), "mark"));
    OwnedJson request(cJSON_DetachItemFromObjectCaseSensitive(report.get(), "request"));
    if (mark == nullptr || !cJSON_IsObject(request.get()))
        return {};
    return {mark, std::move(request)};
}

bool keep_last_report(const char* name, const LastReport& report)
{
    const OwnedJson content(cJSON_CreateObject());
    cJSON_AddStringToObject(content.get(), "mark", report.mark.c_str());
    cJSON_AddItemToObject(content.get(), "request", cJSON_Duplicate(report.request.get(), true));
    const OwnedMallocText text(cJSON_PrintUnformatted(content.get()));
    if (text && make_folder() && replace_file(path_of(name), text.get()))
        return true;
    log_message(LEVEL_ERROR, "%s: The report could not be kept in %s: %s", __func__, FOLDER,
                std::strerror(errno));
    return false;
}
