#include "trell_core.h"

#include <glib.h>
#include <sqlite3.h>

// The framework of a plain Linux machine needs nothing of the process before logging is opened.
int trell_core_init(int, char**)
{
    return 0;
}

void trell_core_deinit()
{
    sqlite3_shutdown();
}

void trell_core_free_int_array(int* values)
{
    g_free(values);
}

void trell_core_free_string_array(char** texts)
{
    g_strfreev(texts);
}

void trell_core_free_bool_array(bool* values)
{
    g_free(values);
}
