// core/console.h: what a person at the camera's console sees of a change that was carried out.
#pragma once

// Writes "QUARN: " and the text as one line to standard error, and logs the text at level 3 behind
// "<function>: Console Output: ". The text is given without its line end.
void print_console(const char* function, const char* format, ...) __attribute__((format(printf, 2, 3)));
