// trell_core.h: the camera framework as the daemon uses it: process, logging, settings store, configuration.
// A camera maker puts their own library behind these declarations; platform/linux is the bundled one.
// Unless said otherwise a result of 0 is success and an out-parameter is untouched on failure.
#pragma once

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct TrellLogging TrellLogging;
typedef struct TrellSettings TrellSettings;
typedef struct TrellConfiguration TrellConfiguration;

int trell_core_init(int argc, char** argv);
void trell_core_deinit(void);

// Priorities 2 (critical) to 7 (debug). One call is one line of the log, whatever bytes it holds.
int trell_core_logging_init(const char* identifier, TrellLogging** logging);
void trell_core_logging_logv(TrellLogging* logging, int priority, const char* format, va_list arguments);
void trell_core_logging_deinit(TrellLogging* logging);

// The persistent store of JSON texts by dotted key ("IPv4.DHCP.Enabled") of one application.
enum { TRELL_SETTINGS_NOT_STORED = 6 };
int trell_core_settings_init(const char* application, TrellSettings** settings);
// 0: *json_text is a new text that the caller releases with free(). 6: nothing is stored. Else: failure.
int trell_core_settings_get_json_value(TrellSettings* settings, const char* key, char** json_text);
// The first write after a commit opens a transaction; what is written can be read at once, but a power cut or
// a failed commit takes it all back until trell_core_settings_commit has answered 0.
int trell_core_settings_set_json_value(TrellSettings* settings, const char* key, const char* json_text);
// Ends the transaction, synced to the disk; without one it does nothing. A port whose writes are durable one
// by one may leave it empty.
int trell_core_settings_commit(TrellSettings* settings);
void trell_core_settings_deinit(TrellSettings* settings);

// The read-only configuration of one name. A missing key or a value of another type is a failure.
int trell_core_configuration_init(const char* name, TrellConfiguration** configuration);
// *value is a new text that the caller releases with free().
int trell_core_configuration_get_string_value(TrellConfiguration* configuration, const char* key,
                                              char** value);
int trell_core_configuration_get_bool_value(TrellConfiguration* configuration, const char* key, bool* value);
int trell_core_configuration_get_int_value(TrellConfiguration* configuration, const char* key, int* value);
// *values is released with trell_core_free_int_array.
int trell_core_configuration_get_arrayofint_value(TrellConfiguration* configuration, const char* key,
                                                  int** values, size_t* count);
void trell_core_configuration_deinit(TrellConfiguration* configuration);

void trell_core_free_int_array(int* values);
// A null-terminated array of texts.
void trell_core_free_string_array(char** texts);
void trell_core_free_bool_array(bool* values);

#ifdef __cplusplus
}
#endif
