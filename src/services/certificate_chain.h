// services/certificate_chain.h: the file that holds the web server's certificate, its key and its
// authority's.
#pragma once

#include <string>

// Writes the certificate file, a line end and the authority file to `output`. Null when one of them could not
// be copied; else `output`.
const char* generate_certificate_chain(const char* certificate, const char* authority, const char* output);
