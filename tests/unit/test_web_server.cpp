#include "api/json_response.h"
#include "api/setting_request.h"
#include "services/certificate_chain.h"
#include "services/web_server.h"
#include "settings/setting_store.h"
#include "support.h"

#include <sys/stat.h>

namespace {

using web_server = QuarnTest;
using certificate_chain = QuarnTest;

using Log = std::vector<std::string>;
using GroupCheck = bool (*)(SettingRequest* request, JsonResponse* response);

// The result, and the response as a client gets it.
struct Outcome {
    bool accepted;
    std::string response;

    bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* stream)
{
    *stream << (outcome.accepted ? "accepted with " : "refused with ") << outcome.response;
}

const Outcome ACCEPTED = {true, R"({"success":false,"errors":[]})"};
const Outcome BOTH_DISABLED = {
    false,
    R"({"success":false,"errors":[{"key":"[Webserver/HTTP]Enabled","code":10,"msg":"HTTP and HTTPS cannot both be disabled"},)"
    R"({"key":"[Webserver/HTTPS]Enabled","code":10,"msg":"HTTP and HTTPS cannot both be disabled"}]})"};
const Outcome NO_CERTIFICATE = {
    false,
    R"({"success":false,"errors":[{"key":"[Webserver/HTTPS]Enabled","code":10,"msg":"Missing HTTPS certificate"}]})"};

Outcome verify(GroupCheck check, const std::string& request_text)
{
    const auto response = json_response_new();
    const auto request = json_set_request_new(request_text.c_str(), response.get());
    const bool accepted = check(request.get(), response.get());
    return {accepted, print(response->root.get())};
}

// The same where the first value that is read finds no memory.
Outcome verify_without_memory(GroupCheck check, const std::string& request_text)
{
    const auto response = json_response_new();
    const auto request = json_set_request_new(request_text.c_str(), response.get());
    const FailingAllocation failing(1);
    const bool accepted = check(request.get(), response.get());
    return {accepted, print(response->root.get())};
}

void hold(const char* key, const std::string& value)
{
    hold_setting(setting(key, value.c_str()).get());
}

std::string quoted(const std::filesystem::path& path)
{
    return '"' + path.string() + '"';
}

// The outcome of a check that has no request, and its log without a response.
void expect_null_values_refused(GroupCheck check, const std::string& message)
{
    const auto response = json_response_new();
    EXPECT_FALSE(check(nullptr, response.get()));
    EXPECT_EQ(print(response->root.get()),
              R"({"success":false,"errors":[{"code":1,"msg":")" + message + R"("}]})");
    EXPECT_FALSE(check(nullptr, nullptr));
}

} // namespace

TEST_F(web_server, disabling_http_while_https_is_off_is_refused_on_both_keys)
{
    EXPECT_EQ(verify(verify_group_http_or_https, R"({"[Webserver/HTTP]Enabled": false})"), BOTH_DISABLED);
    EXPECT_EQ(take_log(),
              (Log{"<5>json_response_add_error: For setting '[Webserver/HTTP]Enabled', adding error 10 to "
                   "JSON response HTTP and HTTPS cannot both be disabled",
                   "<5>json_response_add_error: For setting '[Webserver/HTTPS]Enabled', adding error 10 to "
                   "JSON response HTTP and HTTPS cannot both be disabled"}));
}

TEST_F(web_server, one_of_http_and_https_suffices)
{
    for (const char* request :
         {R"({"[Webserver/HTTP]Enabled": true})", R"({"[Webserver/HTTPS]Enabled": false})",
          R"({"[Webserver/HTTP]Enabled": false, "[Webserver/HTTPS]Enabled": true})",
          R"({"[Webserver/HTTP]Enabled": true, "[Webserver/HTTPS]Enabled": false})"})
        EXPECT_EQ(verify(verify_group_http_or_https, request), ACCEPTED) << request;
    EXPECT_EQ(take_log(), Log());
}

TEST_F(web_server, https_cannot_go_while_http_is_off)
{
    hold("[Webserver/HTTP]Enabled", "false");
    EXPECT_EQ(verify(verify_group_http_or_https, R"({"[Webserver/HTTPS]Enabled": false})"), BOTH_DISABLED);
    hold("[Webserver/HTTPS]Enabled", "true");
    EXPECT_EQ(verify(verify_group_http_or_https, R"({"[Webserver/HTTP]Enabled": false})"), ACCEPTED);
}

TEST_F(web_server, disabling_both_at_once_is_refused)
{
    EXPECT_EQ(verify(verify_group_http_or_https,
                     R"({"[Webserver/HTTPS]Enabled": false, "[Webserver/HTTP]Enabled": false})"),
              BOTH_DISABLED);
}

TEST_F(web_server, a_request_without_the_switches_passes)
{
    hold("[Webserver/HTTP]Enabled", "false");
    EXPECT_EQ(verify(verify_group_http_or_https, R"({"[Webserver/HTTP]Port": 8080})"), ACCEPTED);
    EXPECT_EQ(verify(verify_group_https_certificate, R"({"[Webserver/HTTP]Port": 8080})"), ACCEPTED);
}

TEST_F(web_server, enabling_https_passes_without_any_certificate_and_with_a_stored_file)
{
    const std::string request = R"({"[Webserver/HTTPS]Enabled": true})";
    EXPECT_EQ(verify(verify_group_https_certificate, request), ACCEPTED);
    write_text(scratch / "camera.pem", "certificate");
    hold("[Webserver/HTTPS]Certificate", quoted(scratch / "camera.pem"));
    EXPECT_EQ(verify(verify_group_https_certificate, request), ACCEPTED);
    EXPECT_EQ(take_log(), Log());
}

TEST_F(web_server, enabling_https_is_refused_while_the_stored_certificate_is_no_file)
{
    for (const std::string& value : {quoted(scratch / "gone.pem"), quoted(scratch), std::string("7")}) {
        hold("[Webserver/HTTPS]Certificate", value);
        EXPECT_EQ(verify(verify_group_https_certificate, R"({"[Webserver/HTTPS]Enabled": true})"),
                  NO_CERTIFICATE)
            << value;
    }
}

TEST_F(web_server, a_certificate_in_the_same_request_enables_https)
{
    hold("[Webserver/HTTPS]Certificate", quoted(scratch / "gone.pem"));
    EXPECT_EQ(verify(verify_group_https_certificate,
                     R"({"[Webserver/HTTPS]Enabled": true, "[Webserver/HTTPS]Certificate": "/any"})"),
              ACCEPTED);
}

TEST_F(web_server, clearing_the_certificate_while_enabling_https_looks_at_the_stored_one)
{
    const std::string request = R"({"[Webserver/HTTPS]Enabled": true, "[Webserver/HTTPS]Certificate": null})";
    write_text(scratch / "camera.pem", "certificate");
    hold("[Webserver/HTTPS]Certificate", quoted(scratch / "camera.pem"));
    EXPECT_EQ(verify(verify_group_https_certificate, request), ACCEPTED);
    std::filesystem::remove(scratch / "camera.pem");
    EXPECT_EQ(verify(verify_group_https_certificate, request), NO_CERTIFICATE);
}

TEST_F(web_server, disabling_https_needs_no_certificate)
{
    hold("[Webserver/HTTPS]Certificate", quoted(scratch / "gone.pem"));
    EXPECT_EQ(verify(verify_group_https_certificate, R"({"[Webserver/HTTPS]Enabled": false})"), ACCEPTED);
}

TEST_F(web_server, a_switch_that_cannot_be_read_is_refused_with_its_own_text)
{
    EXPECT_EQ(
        verify_without_memory(verify_group_http_or_https, R"({"[Webserver/HTTP]Enabled":false})"),
        (Outcome{
            false,
            R"({"success":false,"errors":[{"key":"[Webserver/HTTPS]Enabled","code":1,"msg":"Can't read HTTPS enable flag"}]})"}));
    EXPECT_EQ(
        verify_without_memory(verify_group_http_or_https, R"({"[Webserver/HTTPS]Enabled":true})"),
        (Outcome{
            false,
            R"({"success":false,"errors":[{"key":"[Webserver/HTTP]Enabled","code":1,"msg":"Can't read HTTP enable flag"}]})"}));
}

TEST_F(web_server, a_certificate_that_cannot_be_read_counts_as_missing)
{
    EXPECT_EQ(
        verify_without_memory(verify_group_https_certificate, R"({"[Webserver/HTTPS]Enabled":true})"),
        (Outcome{
            false,
            R"({"success":false,"errors":[{"key":"[Webserver/HTTPS]Certificate","code":1,"msg":"Can't read HTTPS certificate value"},)"
            R"({"key":"[Webserver/HTTPS]Enabled","code":10,"msg":"Missing HTTPS certificate"}]})"}));
}

TEST_F(web_server, group_checks_without_request_or_response_are_refused)
{
    expect_null_values_refused(verify_group_http_or_https,
                               "Null value during HTTP/HTTPS enabled verification");
    EXPECT_EQ(take_log().back(),
              "<3>verify_group_http_or_https: Null value during HTTP/HTTPS enabled verification");
    expect_null_values_refused(verify_group_https_certificate,
                               "Null value during HTTPS certificate verification");
    EXPECT_EQ(take_log().back(),
              "<3>verify_group_https_certificate: Null value during HTTPS certificate verification");
}

TEST_F(web_server, https_without_its_certificate_file_gives_way_to_http)
{
    hold("[Webserver/HTTPS]Certificate", quoted(scratch / "gone.pem"));
    save_setting(setting("[Webserver/HTTP]Enabled", "false").get());
    save_setting(setting("[Webserver/HTTPS]Enabled", "true").get());
    take_log();
    EXPECT_FALSE(disable_ssl_on_no_cert());
    EXPECT_EQ(take_important_log(),
              Log{"<3>disable_ssl_on_no_cert: HTTPS Certificate not found.  Disabling HTTPS."});
    restart_store();
    EXPECT_EQ(value_of("[Webserver/HTTP]Enabled"), "true");
    EXPECT_EQ(value_of("[Webserver/HTTPS]Enabled"), "false");
}

TEST_F(web_server, https_with_its_certificate_file_or_without_any_path_is_left_alone)
{
    hold("[Webserver/HTTPS]Enabled", "true");
    EXPECT_TRUE(disable_ssl_on_no_cert());
    write_text(scratch / "camera.pem", "certificate");
    hold("[Webserver/HTTPS]Certificate", quoted(scratch / "camera.pem"));
    EXPECT_TRUE(disable_ssl_on_no_cert());
    EXPECT_EQ(value_of("[Webserver/HTTPS]Enabled"), "true");
    EXPECT_EQ(take_important_log(), Log());
}

TEST_F(web_server, a_lost_certificate_does_not_matter_while_https_is_off)
{
    hold("[Webserver/HTTPS]Certificate", quoted(scratch / "gone.pem"));
    EXPECT_TRUE(disable_ssl_on_no_cert());
    EXPECT_EQ(take_important_log(), Log());
}

TEST_F(web_server, a_reload_that_fails_is_logged_with_its_status)
{
    reload_webserver();
    EXPECT_EQ(take_log(), Log());
    recorded_shell.statuses = {{"reload", 5}};
    reload_webserver();
    EXPECT_EQ(recorded_shell.commands, std::vector<std::string>(2, "systemctl reload nginx.service"));
    EXPECT_EQ(take_log(), Log{"<3>reload_webserver: While reloading webserver, received code 5 on "
                              "'systemctl reload nginx.service'"});
}

TEST_F(certificate_chain, it_is_the_certificate_a_line_end_and_the_authority)
{
    const std::string certificate(3000, 'c');
    write_text(scratch / "camera.pem", certificate + "\n");
    write_text(scratch / "authority.pem", "authority\n");
    const std::string output = scratch / "chain.pem";
    write_text(output, std::string(9000, 'x'));
    EXPECT_STREQ(generate_certificate_chain((scratch / "camera.pem").c_str(),
                                            (scratch / "authority.pem").c_str(), output.c_str()),
                 output.c_str());
    EXPECT_EQ(read_text(output), certificate + "\n\nauthority\n");
    EXPECT_EQ(take_log(), Log());
}

TEST_F(certificate_chain, nobody_else_may_read_it)
{
    write_text(scratch / "camera.pem", "key");
    const std::string output = scratch / "chain.pem";
    const mode_t before = umask(0);
    generate_certificate_chain((scratch / "camera.pem").c_str(), (scratch / "camera.pem").c_str(),
                               output.c_str());
    EXPECT_EQ(umask(before), 0U);
    EXPECT_EQ(std::filesystem::status(output).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(certificate_chain, a_missing_name_is_a_failure)
{
    for (const auto& [certificate, authority] : {std::pair<const char*, const char*>{nullptr, "/a"},
                                                 std::pair<const char*, const char*>{"/c", nullptr}})
        EXPECT_EQ(generate_certificate_chain(certificate, authority, (scratch / "chain.pem").c_str()),
                  nullptr);
    EXPECT_EQ(take_log(), Log(2, "<2>generate_certificate_chain:LINE: ssl certificate or ssl_authority file "
                                 "missing for cert chain generation"));
    EXPECT_FALSE(std::filesystem::exists(scratch / "chain.pem"));
}

TEST_F(certificate_chain, an_output_that_cannot_be_made_is_a_failure)
{
    write_text(scratch / "camera.pem", "key");
    const std::string output = scratch / "nowhere" / "chain.pem";
    EXPECT_EQ(generate_certificate_chain("/c", "/a", output.c_str()), nullptr);
    EXPECT_EQ(take_log(),
              Log{"<2>generate_certificate_chain:LINE: Could not open ssl cert chain file " + output});
}

TEST_F(certificate_chain, a_planted_link_is_not_followed)
{
    write_text(scratch / "victim", "untouched");
    write_text(scratch / "camera.pem", "key");
    const std::string output = scratch / "chain.pem";
    std::filesystem::create_symlink(scratch / "victim", output);
    EXPECT_EQ(generate_certificate_chain((scratch / "camera.pem").c_str(), (scratch / "camera.pem").c_str(),
                                         output.c_str()),
              nullptr);
    EXPECT_EQ(read_text(scratch / "victim"), "untouched");
}

TEST_F(certificate_chain, a_certificate_or_authority_that_cannot_be_copied_is_a_failure)
{
    write_text(scratch / "camera.pem", "key");
    const std::string good = scratch / "camera.pem";
    const std::string gone = scratch / "gone.pem";
    const std::string output = scratch / "chain.pem";
    EXPECT_EQ(generate_certificate_chain(gone.c_str(), good.c_str(), output.c_str()), nullptr);
    EXPECT_EQ(take_log(),
              (Log{"<2>copy_file:LINE: Could not open file: " + gone,
                   "<2>generate_certificate_chain:LINE: Could not copy ssl_certificate file: " + gone}));
    EXPECT_EQ(generate_certificate_chain(good.c_str(), gone.c_str(), output.c_str()), nullptr);
    EXPECT_EQ(
        take_log(),
        (Log{"<2>copy_file:LINE: Could not open file: " + gone,
             "<2>generate_certificate_chain:LINE: Could not copy ssl_authority certificate file: " + gone}));
    EXPECT_EQ(generate_certificate_chain(scratch.c_str(), good.c_str(), output.c_str()), nullptr);
    EXPECT_EQ(take_log(), Log{"<2>generate_certificate_chain:LINE: Could not copy ssl_certificate file: " +
                              scratch.string()});
}

TEST_F(certificate_chain, neither_a_device_nor_a_pipe_holds_the_daemon_up)
{
    write_text(scratch / "camera.pem", "key");
    const std::string good = scratch / "camera.pem";
    const std::string pipe = scratch / "pipe";
    const std::string output = scratch / "chain.pem";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_STREQ(generate_certificate_chain(good.c_str(), pipe.c_str(), output.c_str()), output.c_str());
    EXPECT_EQ(generate_certificate_chain(good.c_str(), "/dev/zero", output.c_str()), nullptr);
    EXPECT_EQ(take_log(), Log{"<2>generate_certificate_chain:LINE: Could not copy ssl_authority certificate "
                              "file: /dev/zero"});
}

TEST_F(certificate_chain, a_full_disk_is_a_failure)
{
    write_text(scratch / "camera.pem", std::string(600, 'k'));
    write_text(scratch / "limit", std::string(512, 'x'));
    const std::string good = scratch / "camera.pem";
    const std::string output = scratch / "chain.pem";
    {
        const FullDisk full(scratch / "limit");
        EXPECT_EQ(generate_certificate_chain(good.c_str(), good.c_str(), output.c_str()), nullptr);
    }
    EXPECT_EQ(take_log(),
              Log{"<2>generate_certificate_chain:LINE: Could not copy ssl_certificate file: " + good});
}
