#include "services/hostname.h"
#include "settings/setting_store.h"
#include "trell_api.h"
#include "verdict.h"

#include <cstring>
#include <functional>

namespace {

// What stands before the bundled platform's calls in a test of another platform's failures.
struct DeviceCalls {
    bool broker_opens = true;
    std::function<int(char*** names, char*** providers, bool** active)> targets;
    bool device_opens = true;
    std::function<int(TrellStaticInformation* information)> information;
};
DeviceCalls device_calls;

class hostname : public QuarnTest {
protected:
    void SetUp() override
    {
        QuarnTest::SetUp();
        device_calls = DeviceCalls();
    }
    void TearDown() override
    {
        device_calls = DeviceCalls();
        QuarnTest::TearDown();
    }
    void describe(const std::string& texts)
    {
        write_text(scratch / "device-information.conf", "[device_information]\n" + texts);
    }
    // What construct_default_hostname logs as its own.
    std::vector<std::string> own_log()
    {
        std::vector<std::string> lines = take_log();
        std::erase_if(lines, [](const std::string& line) {
            return line.find("construct_default_hostname:") == std::string::npos;
        });
        return lines;
    }
};

using Log = std::vector<std::string>;

constexpr char NAME[] = "[Hostname]Name";
constexpr char DOMAIN[] = "[Hostname]Domain";
constexpr char FALLBACK_NAME[] = "\"Corvy-0000000\"";
constexpr char NO_MODEL[] = "<4>construct_default_hostname: no ModelName available; using Corvy";
constexpr char NO_SERIAL[] = "<4>construct_default_hostname: no SerialNumber available; using 0000000";
constexpr char NO_TARGETS[] = "<4>construct_default_hostname: Couldn't get device_information targets";

Verdict refused_name(const char* key, const std::string& message, const std::string& value)
{
    return refused(key, 3, message, value);
}

} // namespace

extern "C" {
int __real_trell_api_broker_initiator_init(TrellBroker** broker);
int __real_trell_api_broker_get_targets_send(TrellBroker* broker, const char* target, const char* interface,
                                             char*** names, char*** providers, bool** active);
int __real_trell_api_device_information_initiator_init(TrellDeviceInformation** device);
int __real_trell_api_device_information_get_static_information_send(TrellDeviceInformation* device,
                                                                    const char* provider,
                                                                    TrellStaticInformation* information);

int __wrap_trell_api_broker_initiator_init(TrellBroker** broker)
{
    return device_calls.broker_opens ? __real_trell_api_broker_initiator_init(broker) : 1;
}

int __wrap_trell_api_broker_get_targets_send(TrellBroker* broker, const char* target, const char* interface,
                                             char*** names, char*** providers, bool** active)
{
    return device_calls.targets ? device_calls.targets(names, providers, active)
                                : __real_trell_api_broker_get_targets_send(broker, target, interface, names,
                                                                           providers, active);
}

int __wrap_trell_api_device_information_initiator_init(TrellDeviceInformation** device)
{
    return device_calls.device_opens ? __real_trell_api_device_information_initiator_init(device) : 1;
}

int __wrap_trell_api_device_information_get_static_information_send(TrellDeviceInformation* device,
                                                                    const char* provider,
                                                                    TrellStaticInformation* information)
{
    return device_calls.information ? device_calls.information(information)
                                    : __real_trell_api_device_information_get_static_information_send(
                                          device, provider, information);
}
}

TEST_F(hostname, the_default_is_model_name_and_serial_number)
{
    describe("ModelName=V70\nSerialNumber=0012345\nManufacturer=Vesko\n");
    construct_default_hostname();
    EXPECT_EQ(own_log(), Log());
    EXPECT_EQ(value_of(NAME), "\"V70-0012345\"");
    restart_store();
    EXPECT_EQ(value_of(NAME), "\"V70-0012345\"");
}

TEST_F(hostname, without_a_provider_the_default_is_made_of_both_fallbacks)
{
    construct_default_hostname();
    EXPECT_EQ(own_log(), (Log{NO_TARGETS, NO_MODEL, NO_SERIAL}));
    EXPECT_EQ(value_of(NAME), FALLBACK_NAME);
}

TEST_F(hostname, a_missing_half_is_filled_in_alone)
{
    describe("SerialNumber=0012345\n");
    construct_default_hostname();
    EXPECT_EQ(own_log(), Log{NO_MODEL});
    EXPECT_EQ(value_of(NAME), "\"Corvy-0012345\"");

    ASSERT_TRUE(save_text_setting(NAME, nullptr, Unchanged::WRITTEN));
    restart_store();
    write_text(scratch / "boot-environment.conf", "");
    describe("ModelName=V70\n");
    take_log();
    construct_default_hostname();
    EXPECT_EQ(own_log(), Log{NO_SERIAL});
    EXPECT_EQ(value_of(NAME), "\"V70-0000000\"");
}

TEST_F(hostname, a_model_name_outside_of_the_pattern_of_host_names_is_used_unchanged)
{
    describe("ModelName=_Dome (4K) \xc3\xa4;$(id)\nSerialNumber=-7-\n");
    construct_default_hostname();
    EXPECT_EQ(value_of(NAME), "\"_Dome (4K) \xc3\xa4;$(id)--7-\"");
}

TEST_F(hostname, a_model_name_with_a_line_end_counts_as_missing)
{
    describe("ModelName=V70\\nV71\nSerialNumber=0012345\n");
    construct_default_hostname();
    EXPECT_EQ(own_log(), Log{NO_MODEL});
    EXPECT_EQ(value_of(NAME), "\"Corvy-0012345\"");
}

TEST_F(hostname, a_stored_name_is_not_replaced_by_the_default_even_an_empty_one)
{
    describe("ModelName=V70\nSerialNumber=0012345\n");
    for (const char* name : {"cam01", ""}) {
        ASSERT_TRUE(save_text_setting(NAME, name, Unchanged::WRITTEN));
        restart_store();
        take_log();
        construct_default_hostname();
        EXPECT_EQ(own_log(), Log());
        EXPECT_EQ(value_of(NAME), '"' + std::string(name) + '"');
    }
}

TEST_F(hostname, a_name_of_the_boot_environment_is_not_replaced_by_the_default)
{
    write_text(scratch / "boot-environment.conf", "[boot_environment]\nvesko_hostname=cam01\n");
    construct_default_hostname();
    EXPECT_EQ(value_of(NAME), "\"cam01\"");
}

TEST_F(hostname, a_broker_that_does_not_open_leaves_the_fallbacks)
{
    device_calls.broker_opens = false;
    construct_default_hostname();
    EXPECT_EQ(own_log(),
              (Log{"<4>construct_default_hostname: Couldn't connect to broker", NO_MODEL, NO_SERIAL}));
    EXPECT_EQ(value_of(NAME), FALLBACK_NAME);
}

TEST_F(hostname, a_failed_search_for_providers_leaves_the_fallbacks)
{
    describe("ModelName=V70\nSerialNumber=0012345\n");
    device_calls.targets = [](char*** names, char*** providers, bool** active) {
        *names = g_new0(char*, 1);
        *providers = g_new0(char*, 2);
        **providers = g_strdup("device-information.conf");
        *active = g_new0(bool, 1);
        return 1;
    };
    construct_default_hostname();
    EXPECT_EQ(own_log(), (Log{NO_TARGETS, NO_MODEL, NO_SERIAL}));
    EXPECT_EQ(value_of(NAME), FALLBACK_NAME);
}

TEST_F(hostname, a_missing_list_of_providers_leaves_the_fallbacks)
{
    device_calls.targets = [](char***, char***, bool**) { return 0; };
    construct_default_hostname();
    EXPECT_EQ(own_log(), (Log{NO_TARGETS, NO_MODEL, NO_SERIAL}));
    EXPECT_EQ(value_of(NAME), FALLBACK_NAME);
}

TEST_F(hostname, a_device_information_client_that_does_not_open_leaves_the_fallbacks)
{
    describe("ModelName=V70\nSerialNumber=0012345\n");
    device_calls.device_opens = false;
    construct_default_hostname();
    EXPECT_EQ(own_log(), (Log{"<4>construct_default_hostname: Couldn't connect to device_information",
                              NO_MODEL, NO_SERIAL}));
    EXPECT_EQ(value_of(NAME), FALLBACK_NAME);
}

TEST_F(hostname, what_arrives_of_failed_static_information_is_used)
{
    describe("");
    device_calls.information = [](TrellStaticInformation* information) {
        information->model_name = strdup("V70");
        information->firmware_version = strdup("1.0");
        return 1;
    };
    construct_default_hostname();
    EXPECT_EQ(own_log(),
              (Log{"<4>construct_default_hostname: Couldn't get device_information static information",
                   NO_SERIAL}));
    EXPECT_EQ(value_of(NAME), "\"V70-0000000\"");
}

TEST_F(hostname, a_default_without_memory_for_it_is_told)
{
    describe("ModelName=V70\nSerialNumber=0012345\n");
    cJSON_Hooks hooks = {[](std::size_t) -> void* { return nullptr; }, std::free};
    cJSON_InitHooks(&hooks);
    construct_default_hostname();
    cJSON_InitHooks(nullptr);
    EXPECT_EQ(own_log(),
              Log{"<2>construct_default_hostname:LINE: Could not construct JSON object from V70-0012345"});
    EXPECT_EQ(value_of(NAME), "null");
}

TEST_F(hostname, a_name_is_labels_that_begin_and_end_with_a_letter_or_digit)
{
    for (const char* name : {"\"cam01\"", "\"a\"", "\"cam-01.lab.example.net\"", "\"0a\"", "\"cam_01\""}) {
        EXPECT_EQ(verdict_of(verify_hostname, NAME, name), accepted(name));
        EXPECT_EQ(verdict_of(verify_domain, DOMAIN, name), accepted(name));
    }
    for (const char* name : {R"("")", R"("cam 01")", R"("-cam")", R"("cam-")", R"("cam.")", R"("192.0.2.1")",
                             R"("cam\n")", R"("a;reboot")", R"("käm")"}) {
        EXPECT_EQ(verdict_of(verify_hostname, NAME, name),
                  refused_name(NAME, "Value wasn't a valid hostname", name));
        EXPECT_EQ(verdict_of(verify_domain, DOMAIN, name),
                  refused_name(DOMAIN, "Value wasn't a valid hostname", name));
    }
}

TEST_F(hostname, a_name_of_null_is_refused)
{
    EXPECT_EQ(verdict_of(verify_hostname, NAME, "null"),
              refused_name(NAME, "Hostname value was NULL", "null"));
}

TEST_F(hostname, a_domain_of_null_is_refused_with_the_text_of_names)
{
    EXPECT_EQ(verdict_of(verify_domain, DOMAIN, "null"),
              refused_name(DOMAIN, "Hostname value was NULL", "null"));
}

TEST_F(hostname, what_is_no_text_is_no_name)
{
    for (const char* value : {"1", "true", "[]", "{}"}) {
        EXPECT_EQ(verdict_of(verify_hostname, NAME, value),
                  refused_name(NAME, "Value wasn't a string", value));
        EXPECT_EQ(verdict_of(verify_domain, DOMAIN, value),
                  refused_name(DOMAIN, "Value wasn't a string", value));
    }
}

TEST_F(hostname, a_missing_domain_is_an_error_without_a_key)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    EXPECT_FALSE(verify_domain(nullptr, response.get()));
    EXPECT_EQ(print(response->root.get()),
              R"({"success":false,"errors":[{"code":1,"msg":"Null pointer in domain validation"}]})");
    take_log();

    EXPECT_FALSE(verify_domain(nullptr, nullptr));
    EXPECT_EQ(take_log(), Log{"<3>verify_domain: Null value and response pointers for domain validate"});
}

TEST_F(hostname, the_tool_takes_the_name_from_the_file)
{
    EXPECT_TRUE(run_hostname_command());
    EXPECT_EQ(recorded_shell.commands, Log{"/bin/hostname -F /etc/hostname"});
    EXPECT_EQ(take_log(), Log());
}

TEST_F(hostname, a_tool_that_fails_is_a_failure)
{
    recorded_shell.statuses = {{"hostname", 127}};
    EXPECT_FALSE(run_hostname_command());
    EXPECT_EQ(take_log(),
              Log{"<3>run_hostname_command: Call to '/bin/hostname -F /etc/hostname' had rc=127"});
}
