// services/generated_files.h: the one writable directory, /tmp/.quarn, in which every generated file lives,
// and the links under /etc by which other services find them.
#pragma once

#include "core/owned.h"

// Opens /tmp/.quarn/<name> for writing, truncated or created; never through a link. The directory is made
// when it is missing; one that is not ours, or that others may write, is renamed aside first and made anew.
// Null when there is no file to write to.
OwnedFile open_generated(const char* name);

// Opens the generated file that stands behind a system file ("/etc/resolv.conf"), whose name is made a link
// to it first, whatever it was. Null when there is no file to write to; a link that cannot be mended is only
// logged.
OwnedFile open_file(const char* path);

// Closes a generated file. False when not all of it could be written, as with a full /tmp.
bool close_file(OwnedFile stream);

// The list setting, if its enable setting is true; else null. An empty list is null too.
OwnedStringArray get_enabled_string_array(const char* enable_key, const char* list_key);

// A line of keyword and item for each item, behind an empty line and the title where there is one. Null
// writes nothing. Link-local IPv6 addresses get eth0's zone. An item that is not one plain word is logged and
// left out.
void write_address_list(FILE* stream, const char* title, const char* keyword, char* const* list);

// Whether a text may stand in a generated file: not empty, no blank and no control byte in it.
bool is_one_word(const char* text);
