// services/web_server.h: nginx's configuration: its main file, the fragment with the listening sockets and
// the TLS settings, the certificate chain; and the checks that keep them consistent.
#pragma once

#include "settings/setting_def.h"

struct SettingRequest;

// Turns HTTPS off and HTTP on in the stored settings when the certificate's file has gone; false then.
bool disable_ssl_on_no_cert();
// Mends the main file if it is missing or wrong, and writes the fragment. Failures are logged.
void quarn_write_nginxconf();
void reload_webserver();

// Group checks: one of HTTP and HTTPS stays enabled; HTTPS is enabled only with a usable certificate.
bool verify_group_http_or_https(SettingRequest* request, JsonResponse* response);
bool verify_group_https_certificate(SettingRequest* request, JsonResponse* response);
