#include "api/json_response.h"
#include "api/setting_request.h"
#include "services/tcp_ports.h"
#include "settings/setting_store.h"
#include "support.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using tcp_ports = QuarnTest;

using Log = std::vector<std::string>;

// A socket on the loopback address with a port that the kernel picked, listening or only bound.
class LocalSocket {
public:
    explicit LocalSocket(int family, bool listens = true) : socket_(socket(family, SOCK_STREAM, 0))
    {
        sockaddr_storage address{};
        address.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET)
            reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        else
            reinterpret_cast<sockaddr_in6&>(address).sin6_addr = in6addr_loopback;
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(socket_.get(), generic, size), 0);
        EXPECT_EQ(listens ? listen(socket_.get(), 1) : 0, 0);
        getsockname(socket_.get(), generic, &size);
        port_ = ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in&>(address).sin_port
                                        : reinterpret_cast<sockaddr_in6&>(address).sin6_port);
    }

    std::uint16_t port() const { return port_; }
    std::string text() const { return std::to_string(port_); }

private:
    OwnedDescriptor socket_;
    std::uint16_t port_ = 0;
};

std::string refusal_of(const char* key, int code, const char* message)
{
    return R"({"success":false,"errors":[{"key":")" + std::string(key) + R"(","code":)" +
           std::to_string(code) + R"(,"msg":")" + message + R"("}]})";
}

// A port on which nothing listens as long as the object lives.
class FreePort : public LocalSocket {
public:
    FreePort() : LocalSocket(AF_INET, false) {}
};

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

std::string entry(const std::string& key, int code, const std::string& message)
{
    return R"({"key":")" + key + R"(","code":)" + std::to_string(code) + R"(,"msg":")" + message + R"("})";
}

Outcome refused(const std::vector<std::string>& entries)
{
    std::string errors;
    for (const std::string& text : entries)
        errors += (errors.empty() ? "" : ",") + text;
    return {false, R"({"success":false,"errors":[)" + errors + "]}"};
}

Outcome verify_one(bool (*verifier)(cJSON* item, JsonResponse* response), const std::string& value)
{
    const OwnedJson item = setting("[A]b", value.c_str());
    const auto response = json_response_new();
    const bool accepted = verifier(item.get(), response.get());
    return {accepted, print(response->root.get())};
}

Outcome verify_group(const std::string& request_text)
{
    const auto response = json_response_new();
    const auto request = json_set_request_new(request_text.c_str(), response.get());
    const bool accepted = verify_group_network_ports(request.get(), response.get());
    return {accepted, print(response->root.get())};
}

// A request that proposes the ports that are not empty, in this order.
std::string ports(const std::string& http, const std::string& https = "", const std::string& rtsp = "")
{
    std::string members;
    for (const auto& [key, port] : {std::pair{"[Webserver/HTTP]Port", http},
                                    std::pair{"[Webserver/HTTPS]Port", https}, std::pair{"[RTSP]Port", rtsp}})
        if (!port.empty())
            members += (members.empty() ? "\"" : ",\"") + std::string(key) + "\":" + port;
    return "{" + members + "}";
}

void hold_ports(const std::string& http, const std::string& https, const std::string& rtsp)
{
    hold_setting(setting("[Webserver/HTTP]Port", http.c_str()).get());
    hold_setting(setting("[Webserver/HTTPS]Port", https.c_str()).get());
    hold_setting(setting("[RTSP]Port", rtsp.c_str()).get());
}

constexpr char HTTP[] = "[Webserver/HTTP]Port";
constexpr char HTTPS[] = "[Webserver/HTTPS]Port";
constexpr char RTSP[] = "[RTSP]Port";
constexpr char TAKEN[] = "Proposed port is in use";

} // namespace

TEST_F(tcp_ports, a_listener_of_either_family_takes_its_port)
{
    for (const int family : {AF_INET, AF_INET6})
        EXPECT_TRUE(is_tcp_port_in_use(LocalSocket(family).port())) << family;
}

TEST_F(tcp_ports, a_socket_that_does_not_listen_takes_no_port)
{
    EXPECT_FALSE(is_tcp_port_in_use(FreePort().port()));
}

TEST_F(tcp_ports, a_port_from_1_to_65535_is_accepted)
{
    for (const char* port : {"1", "80", "65535"})
        EXPECT_EQ(verify_one(verify_port, port), ACCEPTED) << port;
}

TEST_F(tcp_ports, a_port_outside_1_to_65535_is_refused)
{
    for (const char* port : {"0", "65536", "-1", "4294967376"})
        EXPECT_EQ(verify_one(verify_port, port), refused({entry("[A]b", 4, "Port out of range")})) << port;
}

TEST_F(tcp_ports, a_port_that_is_no_number_is_refused)
{
    for (const char* port : {R"("80")", "true", "null", "[80]", "1e999"})
        EXPECT_EQ(verify_one(verify_port, port), refused({entry("[A]b", 3, "Value wasn't a number")}))
            << port;
}

TEST_F(tcp_ports, asking_for_a_port_in_use_is_refused)
{
    const LocalSocket listener(AF_INET);
    EXPECT_EQ(verify_one(verify_port_in_use, listener.text()), refused({entry("[A]b", 4, "Port is in use")}));
    EXPECT_EQ(verify_one(verify_port_in_use, R"("80")"),
              refused({entry("[A]b", 3, "Value wasn't a number")}));
}

TEST_F(tcp_ports, asking_for_a_free_port_passes_and_stores_nothing)
{
    EXPECT_EQ(verify_one(verify_port_in_use, FreePort().text()), ACCEPTED);
    EXPECT_FALSE(set_json_value(setting("[TCP/Port]InUse", "8080").get()));
    EXPECT_EQ(value_of("[TCP/Port]InUse"), "(none)");
}

TEST_F(tcp_ports, a_number_that_no_socket_can_have_is_free)
{
    const LocalSocket listener(AF_INET);
    EXPECT_EQ(verify_one(verify_port_in_use, std::to_string(65536 + listener.port())), ACCEPTED);
    EXPECT_EQ(verify_one(verify_port_in_use, std::to_string(listener.port() - 65536)), ACCEPTED);
}

TEST_F(tcp_ports, a_request_without_ports_passes)
{
    EXPECT_EQ(verify_group(R"({"[Webserver/HTTP]Enabled": false})"), ACCEPTED);
    EXPECT_EQ(take_log(), Log());
}

TEST_F(tcp_ports, http_and_rtsp_on_8000_clash_on_both_keys)
{
    const char* message = "HTTP and RTSP cannot share a port";
    EXPECT_EQ(verify_group(ports("8000", "", "8000")),
              refused({entry(HTTP, 4, message), entry(RTSP, 4, message)}));
    EXPECT_EQ(take_log(), (Log{"<5>json_response_add_error: For setting '[Webserver/HTTP]Port', adding error "
                               "4 to JSON response HTTP and RTSP cannot share a port",
                               "<5>json_response_add_error: For setting '[RTSP]Port', adding error 4 to JSON "
                               "response HTTP and RTSP cannot share a port"}));
}

TEST_F(tcp_ports, http_and_https_on_one_port_clash_on_both_keys)
{
    const char* message = "HTTP and HTTPS cannot share a port";
    EXPECT_EQ(verify_group(ports("8000", "8000")),
              refused({entry(HTTP, 4, message), entry(HTTPS, 4, message)}));
    EXPECT_EQ(verify_group(ports("8000", "8000", "8001")),
              refused({entry(HTTP, 4, message), entry(HTTPS, 4, message)}));
}

TEST_F(tcp_ports, https_and_rtsp_on_one_port_clash_on_both_keys)
{
    const char* message = "HTTPS and RTSP cannot share a port";
    EXPECT_EQ(verify_group(ports("8001", "8000", "8000")),
              refused({entry(HTTPS, 4, message), entry(RTSP, 4, message)}));
}

TEST_F(tcp_ports, three_services_on_one_port_are_all_told)
{
    EXPECT_EQ(verify_group(ports("8000", "8000", "8000")),
              refused({entry(HTTP, 4, "HTTP and HTTPS cannot share a port"),
                       entry(HTTPS, 4, "HTTP and HTTPS cannot share a port"),
                       entry(RTSP, 4, "HTTP and RTSP cannot share a port")}));
    EXPECT_EQ(take_log().size(), 6U);
}

TEST_F(tcp_ports, a_proposal_that_is_no_number_is_left_to_its_own_check)
{
    EXPECT_EQ(verify_group(ports(R"("8000")", R"("8000")", "null")), ACCEPTED);
}

TEST_F(tcp_ports, a_port_that_stands_twice_counts_with_its_last_value)
{
    const FreePort free;
    EXPECT_EQ(
        verify_group(R"({"[Webserver/HTTP]Port":8000,"[RTSP]Port":8000,"[RTSP]Port":)" + free.text() + "}"),
        ACCEPTED);
}

TEST_F(tcp_ports, a_proposed_port_with_a_listener_is_refused)
{
    const LocalSocket listener(AF_INET);
    EXPECT_EQ(verify_group(ports(listener.text())), refused({entry(HTTP, 11, TAKEN)}));
    EXPECT_EQ(verify_group(ports("", listener.text())), refused({entry(HTTPS, 11, TAKEN)}));
    EXPECT_EQ(verify_group(ports("", "", listener.text())), refused({entry(RTSP, 11, TAKEN)}));
}

TEST_F(tcp_ports, every_taken_port_of_a_request_is_told)
{
    const LocalSocket one(AF_INET);
    const LocalSocket two(AF_INET6);
    const LocalSocket three(AF_INET);
    EXPECT_EQ(verify_group(ports(one.text(), two.text(), three.text())),
              refused({entry(HTTP, 11, TAKEN), entry(HTTPS, 11, TAKEN), entry(RTSP, 11, TAKEN)}));
}

TEST_F(tcp_ports, a_free_port_is_accepted)
{
    const FreePort free;
    EXPECT_EQ(verify_group(ports(free.text())), ACCEPTED);
}

TEST_F(tcp_ports, a_service_may_keep_the_port_that_it_listens_on)
{
    const LocalSocket listener(AF_INET);
    hold_ports(listener.text(), "443", "554");
    EXPECT_EQ(verify_group(ports(listener.text())), ACCEPTED);
}

TEST_F(tcp_ports, a_port_of_a_service_that_stays_is_refused)
{
    const LocalSocket https(AF_INET);
    const FreePort free;
    hold_ports(free.text(), https.text(), "554");
    EXPECT_EQ(verify_group(ports(https.text())), refused({entry(HTTP, 11, TAKEN)}));
    // Proposed again, it still stays.
    EXPECT_EQ(verify_group(ports(https.text(), https.text())),
              refused({entry(HTTP, 4, "HTTP and HTTPS cannot share a port"),
                       entry(HTTPS, 4, "HTTP and HTTPS cannot share a port")}));
    EXPECT_EQ(verify_group(ports("", free.text(), https.text())), ACCEPTED);
}

TEST_F(tcp_ports, services_exchange_or_pass_on_their_ports)
{
    const LocalSocket http(AF_INET);
    const LocalSocket https(AF_INET);
    const LocalSocket rtsp(AF_INET);
    const FreePort free;
    hold_ports(http.text(), https.text(), rtsp.text());
    EXPECT_EQ(verify_group(ports(https.text(), http.text())), ACCEPTED);
    EXPECT_EQ(verify_group(ports(https.text(), rtsp.text(), http.text())), ACCEPTED);
    EXPECT_EQ(verify_group(ports(https.text(), free.text())), ACCEPTED);
    EXPECT_EQ(verify_group(ports(https.text(), "", free.text())), refused({entry(HTTP, 11, TAKEN)}));
}

TEST_F(tcp_ports, a_stored_port_that_went_bad_does_not_bar_its_replacement)
{
    const FreePort free;
    hold_ports(R"("eighty")", "443", "554");
    EXPECT_EQ(verify_group(ports(free.text())), ACCEPTED);
}

TEST_F(tcp_ports, a_stored_port_that_cannot_be_read_is_told_alone_and_with_its_key)
{
    // Taken, which is looked at only once all ports could be read.
    const LocalSocket listener(AF_INET);
    std::vector<std::string> told;
    // Each allocation of the check fails once, until every reading has failed.
    constexpr int MOST_ALLOCATIONS = 20;
    for (int number = 1; number < MOST_ALLOCATIONS && told.size() < 3; ++number) {
        const auto response = json_response_new();
        const auto request = json_set_request_new(ports(listener.text()).c_str(), response.get());
        {
            const FailingAllocation failing(number);
            EXPECT_FALSE(verify_group_network_ports(request.get(), response.get()));
        }
        const std::string text = print(response->root.get());
        if (told.empty() || told.back() != text)
            told.push_back(text);
    }
    EXPECT_EQ(told, (std::vector{refusal_of("[Webserver/HTTP]Port", 1, "Can't read existing HTTP port"),
                                 refusal_of("[Webserver/HTTPS]Port", 1, "Can't read existing HTTPS port"),
                                 refusal_of("[RTSP]Port", 1, "Can't read existing RTSP port")}));
}

TEST_F(tcp_ports, a_port_check_without_request_or_response_is_refused)
{
    const auto response = json_response_new();
    EXPECT_FALSE(verify_group_network_ports(nullptr, response.get()));
    EXPECT_EQ(
        print(response->root.get()),
        R"({"success":false,"errors":[{"code":1,"msg":"Null value during HTTP/HTTPS/RTSP port verification"}]})");
    take_log();
    EXPECT_FALSE(verify_group_network_ports(nullptr, nullptr));
    EXPECT_EQ(take_log(),
              Log{"<3>verify_group_network_ports: Null value during HTTP/HTTPS/RTSP port verification"});
}
