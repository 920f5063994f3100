#include "files.h"
#include "trell_core.h"

#include <cstring>
#include <string>
#include <string_view>

struct TrellConfiguration {
    std::string group;
    platform::KeyFile file;
};

int trell_core_configuration_init(const char* name, TrellConfiguration** configuration)
{
    platform::KeyFile file =
        platform::read_key_file(platform::configuration_directory() + "/" + name + ".conf");
    if (!file)
        return 1;
    *configuration = new TrellConfiguration{name, std::move(file)};
    return 0;
}

int trell_core_configuration_get_string_value(TrellConfiguration* configuration, const char* key,
                                              char** value)
{
    const platform::GlibText text(
        g_key_file_get_string(configuration->file.get(), configuration->group.c_str(), key, nullptr));
    char* const copy = text ? strdup(text.get()) : nullptr;
    if (copy == nullptr)
        return 1;
    *value = copy;
    return 0;
}

// GLib's own reader would take 1 and 0 as well.
int trell_core_configuration_get_bool_value(TrellConfiguration* configuration, const char* key, bool* value)
{
    const platform::GlibText text(
        g_key_file_get_value(configuration->file.get(), configuration->group.c_str(), key, nullptr));
    if (!text)
        return 1;
    const std::string_view word = g_strchomp(text.get());
    if (word != "true" && word != "false")
        return 1;
    *value = word == "true";
    return 0;
}

int trell_core_configuration_get_int_value(TrellConfiguration* configuration, const char* key, int* value)
{
    platform::GlibError error;
    const int number =
        g_key_file_get_integer(configuration->file.get(), configuration->group.c_str(), key, error.out());
    if (*error.out() != nullptr)
        return 1;
    *value = number;
    return 0;
}

int trell_core_configuration_get_arrayofint_value(TrellConfiguration* configuration, const char* key,
                                                  int** values, size_t* count)
{
    platform::GlibError error;
    gsize length = 0;
    int* const numbers = g_key_file_get_integer_list(configuration->file.get(), configuration->group.c_str(),
                                                     key, &length, error.out());
    if (*error.out() != nullptr)
        return 1;
    *values = numbers;
    *count = length;
    return 0;
}

void trell_core_configuration_deinit(TrellConfiguration* configuration)
{
    delete configuration;
}
