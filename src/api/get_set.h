// api/get_set.h: the two calls of the message bus.
#pragma once

// Non-zero when a response was produced; *response_text is then a new text that the bus releases with free().
int api_get(const char* request_text, char** response_text);
int api_set(const char* request_text, char** response_text);
