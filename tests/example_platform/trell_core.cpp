#include "trell_core.h"

#include "example_platform.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

struct TrellLogging {};
struct TrellSettings {};
struct TrellConfiguration {};

namespace example {

Platform& platform()
{
    static Platform the_platform;
    return the_platform;
}

void reset()
{
    platform() = Platform();
}

} // namespace example

int trell_core_init(int /*argc*/, char** /*argv*/)
{
    return 0;
}

void trell_core_deinit() {}

int trell_core_logging_init(const char* /*identifier*/, TrellLogging** logging)
{
    static TrellLogging the_log;
    *logging = &the_log;
    return 0;
}

void trell_core_logging_logv(TrellLogging* /*logging*/, int priority, const char* format, va_list arguments)
{
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    example::platform().log.push_back(std::to_string(priority) + " " + text);
}

void trell_core_logging_deinit(TrellLogging* /*logging*/) {}

int trell_core_settings_init(const char* /*application*/, TrellSettings** settings)
{
    static TrellSettings the_settings;
    *settings = &the_settings;
    return 0;
}

int trell_core_settings_get_json_value(TrellSettings* /*settings*/, const char* key, char** json_text)
{
    for (const auto* values : {&example::platform().uncommitted, &example::platform().stored}) {
        const auto found = values->find(key);
        if (found != values->end()) {
            *json_text = strdup(found->second.c_str());
            return *json_text != nullptr ? 0 : 1;
        }
    }
    return TRELL_SETTINGS_NOT_STORED;
}

int trell_core_settings_set_json_value(TrellSettings* /*settings*/, const char* key, const char* json_text)
{
    example::platform().uncommitted[key] = json_text;
    return 0;
}

int trell_core_settings_commit(TrellSettings* /*settings*/)
{
    example::Platform& platform = example::platform();
    for (const auto& [key, text] : platform.uncommitted)
        platform.stored[key] = text;
    platform.uncommitted.clear();
    return 0;
}

void trell_core_settings_deinit(TrellSettings* /*settings*/) {}

// This camera needs no configuration of the daemon: every value is missing.
int trell_core_configuration_init(const char* /*name*/, TrellConfiguration** configuration)
{
    static TrellConfiguration the_configuration;
    *configuration = &the_configuration;
    return 0;
}

int trell_core_configuration_get_string_value(TrellConfiguration* /*configuration*/, const char* /*key*/,
                                              char** /*value*/)
{
    return 1;
}

int trell_core_configuration_get_bool_value(TrellConfiguration* /*configuration*/, const char* /*key*/,
                                            bool* /*value*/)
{
    return 1;
}

int trell_core_configuration_get_int_value(TrellConfiguration* /*configuration*/, const char* /*key*/,
                                           int* /*value*/)
{
    return 1;
}

int trell_core_configuration_get_arrayofint_value(TrellConfiguration* /*configuration*/, const char* /*key*/,
                                                  int** /*values*/, size_t* /*count*/)
{
    return 1;
}

void trell_core_configuration_deinit(TrellConfiguration* /*configuration*/) {}

void trell_core_free_int_array(int* values)
{
    std::free(values);
}

void trell_core_free_string_array(char** texts)
{
    for (char** text = texts; text != nullptr && *text != nullptr; ++text)
        std::free(*text);
    std::free(texts);
}

void trell_core_free_bool_array(bool* values)
{
    std::free(values);
}
