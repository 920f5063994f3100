#include "services/web_server.h"

#include "api/json_response.h"
#include "api/setting_request.h"
#include "api/verifiers.h"
#include "core/log.h"
#include "core/shell.h"
#include "services/certificate_chain.h"
#include "services/generated_files.h"
#include "settings/setting_store.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

namespace {

constexpr char HTTP_ENABLED[] = "[Webserver/HTTP]Enabled";
constexpr char HTTPS_ENABLED[] = "[Webserver/HTTPS]Enabled";
constexpr char CERTIFICATE[] = "[Webserver/HTTPS]Certificate";
constexpr char AUTHORITY[] = "[Webserver/HTTPS]Authority";

constexpr char MAIN_FILE[] = "/etc/nginx/nginx.conf";
constexpr char FRAGMENT[] = "/tmp/.quarn/nginx.conf";
constexpr char CHAIN_FILE[] = "/tmp/.quarn/chained_cert.pem";
// More than any main file: what a damaged file system says of a size must not take all memory.
constexpr off_t LARGEST_MAIN_FILE = off_t{16} << 20;

// The odd spacing, and the cache headers inside a comment line, are what cameras in the field have.
constexpr char MAIN_FILE_TEMPLATE[] = R"(# written by quarn
pid /var/run/nginx.pid;
user root root;
worker_processes auto;
load_module lib/modules/vesko_gardo_module.so;

events {
    worker_connections 64;
}

http {
    # include upstream server definitions
    include /etc/nginx/upstream.d/*.upstream;

    include proxy.conf;
    include fastcgi.conf;

    auth-backend gardo;
    access_log   off;    error_log    stderr error;

    add_header   X-Content-Type-Options nosniff; # disable browser sniffing of content-type

    #Cache headers    add_header Pragma no-cache;    add_header Cache-Control no-cache;    include      mime.types;
    default_type application/octet-stream;
    sendfile     on;

    keepalive_timeout  60s;
    limit_rate 1750000; # (1750000 bytes = 14 megabits) max out per second

    server {
        # quarn generated config contains the address and port settins
        include /tmp/.quarn/nginx.conf;

        # include all the configuration fragments for the other components
        include /etc/nginx/conf.d/*.conf;
    }
}
)";

enum class MainFile { CORRECT, WRONG, MISSING, UNREADABLE };

// Failures are logged in the writer's name.
MainFile examine_main_file(const char* writer)
{
    const OwnedDescriptor file(open(MAIN_FILE, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.is_open() && errno == ENOENT)
        return MainFile::MISSING;
    struct stat status = {};
    if (!file.is_open() || fstat(file.get(), &status) != 0) {
        log_message(LEVEL_CRITICAL, "%s:%d: Can't stat nginx.conf", writer, __LINE__);
        return MainFile::UNREADABLE;
    }
    std::string content(static_cast<std::size_t>(std::min(status.st_size, LARGEST_MAIN_FILE)), '\0');
    if (read(file.get(), content.data(), content.size()) != status.st_size) {
        log_message(LEVEL_CRITICAL, "%s:%d: Can't read nginx.conf", writer, __LINE__);
        return MainFile::UNREADABLE;
    }
    const bool correct =
        content.find("listen") == std::string::npos && content.find(FRAGMENT) != std::string::npos;
    return correct ? MainFile::CORRECT : MainFile::WRONG;
}

bool rewrite_main_file()
{
    // Not blocking on a FIFO in its place.
    const OwnedDescriptor file(open(MAIN_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0666));
    constexpr ssize_t SIZE = sizeof MAIN_FILE_TEMPLATE - 1;
    return file.is_open() && write(file.get(), MAIN_FILE_TEMPLATE, SIZE) == SIZE;
}

struct Families {
    bool ipv4;
    bool ipv6;
};

void write_listeners(FILE* stream, int port, Families families, const char* tls)
{
    if (families.ipv6)
        std::fprintf(stream, "listen [::]:%d ipv6only=on%s;\n", port, tls);
    if (families.ipv4)
        std::fprintf(stream, "listen %d%s;\n", port, tls);
}

// A path as nginx reads it back: plain, or quoted. Empty for one that nginx would read as something else:
// with a variable or control bytes in it, or relative.
std::string nginx_path(const char* path)
{
    constexpr char PLAIN[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._/-";
    if (*path != '/')
        return {};
    if (path[std::strspn(path, PLAIN)] == '\0')
        return path;
    std::string quoted = "\"";
    for (; *path != '\0'; ++path) {
        if (*path == '$' || g_ascii_iscntrl(*path))
            return {};
        if (*path == '\\' || *path == '"')
            quoted += '\\';
        quoted += *path;
    }
    return quoted + '"';
}

// The path that nginx gets as certificate and as key: the chain where there is an authority. Null for none.
const char* certificate_path(const char* certificate, const char* authority, const char* writer)
{
    if (authority == nullptr)
        return certificate;
    const char* chain = generate_certificate_chain(certificate, authority, CHAIN_FILE);
    if (chain == nullptr)
        log_message(LEVEL_CRITICAL, "%s:%d: Failed to generate Nginx ssl certificate chain", writer,
                    __LINE__);
    return chain;
}

void write_certificate(FILE* stream, const char* writer)
{
    const OwnedText certificate = get_string(CERTIFICATE);
    const OwnedText authority = get_string(AUTHORITY);
    const char* path = certificate_path(certificate.get(), authority.get(), writer);
    if (path == nullptr)
        return;
    const std::string written = nginx_path(path);
    if (written.empty()) {
        log_message(LEVEL_ERROR, "%s: The certificate path '%s' cannot be given to nginx", writer, path);
        return;
    }
    std::fprintf(stream, "ssl_certificate %s;\nssl_certificate_key %s;\nssl_protocols TLSv1.2;\n",
                 written.c_str(), written.c_str());
}

bool is_regular_file(const char* path)
{
    struct stat status = {};
    return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

void store_switch(const char* key, bool on)
{
    set_json_value(with_key(OwnedJson(cJSON_CreateBool(on)), key).get());
}

// What a switch will be once the request is saved. False when it cannot be read.
bool resulting_switch(const cJSON* proposed, const char* key, const char* error, JsonResponse& response,
                      bool& on)
{
    const OwnedJson current = proposed != nullptr ? nullptr : get_json_value(key);
    if (proposed == nullptr && !current) {
        json_response_add_error(response, ERROR_INTERNAL, key, error);
        return false;
    }
    on = cJSON_IsTrue(proposed != nullptr ? proposed : current.get());
    return true;
}

} // namespace

bool disable_ssl_on_no_cert()
{
    const OwnedText certificate = get_string(CERTIFICATE);
    const bool https_on = get_bool(HTTPS_ENABLED);
    if (!certificate || !https_on || is_regular_file(certificate.get()))
        return true;
    log_message(LEVEL_ERROR, "%s: HTTPS Certificate not found.  Disabling HTTPS.", __func__);
    store_switch(HTTP_ENABLED, true);
    store_switch(HTTPS_ENABLED, false);
    return false;
}

void quarn_write_nginxconf()
{
    const bool http_on = get_bool(HTTP_ENABLED);
    const bool https_on = get_bool(HTTPS_ENABLED);
    const int http_port = get_int("[Webserver/HTTP]Port");
    const int https_port = get_int("[Webserver/HTTPS]Port");
    const Families families = {get_bool("[IPv4]Enabled"), get_bool("[IPv6]Enabled")};
    const MainFile main_file = examine_main_file(__func__);
    if (main_file == MainFile::UNREADABLE)
        return;
    if (main_file != MainFile::CORRECT) {
        log_message(LEVEL_WARNING, "%s: %s", __func__,
                    main_file == MainFile::WRONG ? "Incorrect nginx.conf; rewriting it"
                                                 : "Missing nginx.conf; creating it");
        if (!rewrite_main_file()) {
            log_message(LEVEL_CRITICAL, "%s:%d: Can't write nginx.conf", HERE);
            return;
        }
    }
    OwnedFile stream = open_generated("nginx.conf");
    if (!stream) {
        log_message(LEVEL_CRITICAL, "%s:%d: Cannot create /tmp/.quarn/nginx.conf", HERE);
        return;
    }
    std::fputs("# written by quarn\n", stream.get());
    if (http_on)
        write_listeners(stream.get(), http_port, families, "");
    if (https_on) {
        write_listeners(stream.get(), https_port, families, " ssl");
        write_certificate(stream.get(), __func__);
    }
    if (!close_file(std::move(stream)))
        log_message(LEVEL_CRITICAL, "%s:%d: Cannot write /tmp/.quarn/nginx.conf", HERE);
}

void reload_webserver()
{
    const ShellCommand command("systemctl reload nginx.service");
    const int status = exit_status(run_shell(command));
    if (status != 0)
        log_message(LEVEL_ERROR, "%s: While reloading webserver, received code %d on '%s'", __func__, status,
                    command.text());
}

bool verify_group_http_or_https(SettingRequest* request, JsonResponse* response)
{
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: Null value during HTTP/HTTPS enabled verification", __func__);
        return false;
    }
    if (request == nullptr) {
        json_response_add_error(*response, ERROR_INTERNAL, nullptr,
                                "Null value during HTTP/HTTPS enabled verification");
        return false;
    }
    const cJSON* http = json_request_find(*request, HTTP_ENABLED);
    const cJSON* https = json_request_find(*request, HTTPS_ENABLED);
    if (http == nullptr && https == nullptr)
        return true;
    bool http_on = false;
    bool https_on = false;
    if (!resulting_switch(https, HTTPS_ENABLED, "Can't read HTTPS enable flag", *response, https_on) ||
        !resulting_switch(http, HTTP_ENABLED, "Can't read HTTP enable flag", *response, http_on))
        return false;
    if (http_on || https_on)
        return true;
    for (const char* key : {HTTP_ENABLED, HTTPS_ENABLED})
        json_response_add_error(*response, ERROR_UNSUPPORTED_COMBINATION, key,
                                "HTTP and HTTPS cannot both be disabled");
    return false;
}

bool verify_group_https_certificate(SettingRequest* request, JsonResponse* response)
{
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: Null value during HTTPS certificate verification", __func__);
        return false;
    }
    if (request == nullptr) {
        json_response_add_error(*response, ERROR_INTERNAL, nullptr,
                                "Null value during HTTPS certificate verification");
        return false;
    }
    if (!cJSON_IsTrue(json_request_find(*request, HTTPS_ENABLED)))
        return true;
    const cJSON* proposed = json_request_find(*request, CERTIFICATE);
    if (proposed != nullptr && !cJSON_IsNull(proposed))
        return true;
    const OwnedJson current = get_json_value(CERTIFICATE);
    if (!current)
        json_response_add_error(*response, ERROR_INTERNAL, CERTIFICATE, "Can't read HTTPS certificate value");
    else if (verify_is_file(current.get(), nullptr))
        return true;
    json_response_add_error(*response, ERROR_UNSUPPORTED_COMBINATION, HTTPS_ENABLED,
                            "Missing HTTPS certificate");
    return false;
}
