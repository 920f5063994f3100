#include "amboot_env.h"
#include "platform_fixture.h"

#include <fcntl.h>
#include <sys/file.h>

#include <array>
#include <chrono>
#include <functional>

namespace {

namespace fs = std::filesystem;

std::uint32_t crc32(const std::string& bytes)
{
    std::uint32_t sum = 0xffffffff;
    for (const char byte : bytes) {
        sum ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; bit++)
            sum = (sum >> 1) ^ ((sum & 1) != 0 ? 0xedb88320 : 0);
    }
    return ~sum;
}

constexpr std::size_t ENVIRONMENT_SIZE = 4096;

// An environment as U-Boot lays it down: checksum, then "name=value" texts, each ended by a zero byte.
std::string uboot_image(const std::string& variables)
{
    std::string data = variables;
    data.resize(ENVIRONMENT_SIZE - 4, '\0');
    std::uint32_t sum = crc32(data);
    std::string image(reinterpret_cast<const char*>(&sum), sizeof sum);
    return image + data;
}

class platform_bootenv : public PlatformTest {
protected:
    void use_uboot(const std::string& image)
    {
        write_text(scratch / "uboot.env", image);
        write_text(scratch / "fw_env.config", (scratch / "uboot.env").string() + " 0x0 0x1000\n");
    }

    // What `steps` answers on an open environment and what closing it answers.
    template <typename Steps> static std::pair<int, int> on_open(Steps steps)
    {
        AmbootEnv* environment = nullptr;
        if (amboot_env_open(&environment) != 0)
            return {-100, -100};
        const int result = steps(environment);
        return {result, amboot_env_close(environment)};
    }

    static std::string hostname()
    {
        std::string text = "(none)";
        on_open([&](AmbootEnv* environment) {
            const char* const name = amboot_env_get_vesko_hostname(environment);
            text = name != nullptr ? name : text;
            return 0;
        });
        return text;
    }

    static int dhcp()
    {
        return on_open(
                   [](AmbootEnv* environment) { return amboot_env_get_vesko_ipv4_dhcp_enable(environment); })
            .first;
    }

    static std::pair<int, int> set_hostname(const char* name)
    {
        return on_open(
            [&](AmbootEnv* environment) { return amboot_env_set_vesko_hostname(environment, name); });
    }
};

constexpr std::pair<int, int> DONE = {0, 0};

// The two kinds of environment do the same.
class platform_bootenv_of_each_kind : public platform_bootenv,
                                      public testing::WithParamInterface<const char*> {
protected:
    void hold(const std::string& name, const std::string& value)
    {
        if (GetParam() == std::string("uboot"))
            use_uboot(uboot_image(name + "=" + value));
        else
            write_text(scratch / "boot-environment.conf", "[boot_environment]\n" + name + "=" + value + "\n");
    }
};

INSTANTIATE_TEST_SUITE_P(kind, platform_bootenv_of_each_kind, testing::Values("uboot", "key_file"),
                         [](const auto& instance) { return std::string(instance.param); });

} // namespace

TEST_P(platform_bootenv_of_each_kind, flags_are_0_or_1_and_anything_else_is_no_value)
{
    for (const auto& [text, flag] : {std::pair("0", 0), {"1", 1}, {"10", -1}, {"x", -1}}) {
        hold("vesko_ipv4_dhcp_enable", text);
        EXPECT_EQ(dhcp(), flag) << text;
    }
    hold("bootdelay", "3");
    EXPECT_EQ(dhcp(), -1);
}

TEST_P(platform_bootenv_of_each_kind, what_was_set_is_read_back_and_the_rest_stays)
{
    hold("bootdelay", "3");
    const auto result = on_open([](AmbootEnv* environment) {
        return amboot_env_set_vesko_ipv4_dhcp_enable(environment, false) |
               amboot_env_set_vesko_ipv4_link_local_enable(environment, true) |
               amboot_env_set_vesko_ipv6_enable(environment, true) |
               amboot_env_set_vesko_ipv6_addresses(environment, "2001:db8::1/64 2001:db8::2/64") |
               amboot_env_set_vesko_hostname(environment, "camera-1");
    });
    EXPECT_EQ(result, DONE);
    on_open([](AmbootEnv* environment) {
        EXPECT_EQ(amboot_env_get_vesko_ipv4_dhcp_enable(environment), 0);
        EXPECT_EQ(amboot_env_get_vesko_ipv4_link_local_enable(environment), 1);
        EXPECT_EQ(amboot_env_get_vesko_ipv6_enable(environment), 1);
        EXPECT_STREQ(amboot_env_get_vesko_ipv6_addresses(environment), "2001:db8::1/64 2001:db8::2/64");
        EXPECT_STREQ(amboot_env_get_vesko_hostname(environment), "camera-1");
        return 0;
    });
    const char* const file = GetParam() == std::string("uboot") ? "uboot.env" : "boot-environment.conf";
    EXPECT_NE(read_text(scratch / file).find("bootdelay=3"), std::string::npos);
}

TEST_P(platform_bootenv_of_each_kind, a_set_value_can_be_read_before_the_environment_is_closed)
{
    hold("vesko_hostname", "old");
    on_open([](AmbootEnv* environment) {
        EXPECT_EQ(amboot_env_set_vesko_hostname(environment, "new"), 0);
        EXPECT_STREQ(amboot_env_get_vesko_hostname(environment), "new");
        return 0;
    });
}

TEST_P(platform_bootenv_of_each_kind, an_empty_text_takes_the_value_away)
{
    hold("vesko_hostname", "camera");
    EXPECT_EQ(set_hostname(""), DONE);
    EXPECT_EQ(hostname(), "(none)");
}

TEST_P(platform_bootenv_of_each_kind, an_unchanged_value_writes_nothing)
{
    hold("vesko_hostname", "camera");
    const fs::path file =
        scratch / (GetParam() == std::string("uboot") ? "uboot.env" : "boot-environment.conf");
    const auto long_ago = fs::file_time_type::clock::now() - std::chrono::hours(1);
    fs::last_write_time(file, long_ago);
    EXPECT_EQ(set_hostname("camera"), DONE);
    EXPECT_EQ(fs::last_write_time(file), long_ago);
    EXPECT_EQ(set_hostname("other"), DONE);
    EXPECT_NE(fs::last_write_time(file), long_ago);
}

TEST_P(platform_bootenv_of_each_kind, no_value_can_become_another_variable)
{
    hold("vesko_hostname", "camera");
    EXPECT_EQ(set_hostname(" a\nvesko_ipv4_dhcp_enable=0\r\n[group]\n\\n=;#\t"), DONE);
    EXPECT_EQ(hostname(), " a\nvesko_ipv4_dhcp_enable=0\r\n[group]\n\\n=;#\t");
    EXPECT_EQ(dhcp(), -1);
}

TEST_P(platform_bootenv_of_each_kind, a_text_that_is_not_utf_8_is_refused)
{
    hold("vesko_hostname", "camera");
    EXPECT_EQ(set_hostname("\xff"), std::pair(1, 0));
    EXPECT_EQ(hostname(), "camera");
}

TEST_P(platform_bootenv_of_each_kind, the_network_device_record_is_36_digits)
{
    hold("netdev0", "0102030405AAc0a80a02ffffff00c0a80a010000");
    EXPECT_EQ(on_open([](AmbootEnv* environment) {
                  return amboot_env_get_netdev(environment, 0) == nullptr ? 1 : 0;
              }).first,
              1);
    hold("netdev0", "0102030405AAc0a80a02ffffff00c0a80a01");
    const std::array<unsigned char, 18> expected = {1, 2,   3,   4,   5, 0xaa, 192, 168, 10,
                                                    2, 255, 255, 255, 0, 192,  168, 10,  1};
    on_open([&](AmbootEnv* environment) {
        const unsigned char* const record = amboot_env_get_netdev(environment, 0);
        EXPECT_NE(record, nullptr);
        EXPECT_TRUE(record != nullptr && std::equal(expected.begin(), expected.end(), record));
        EXPECT_EQ(amboot_env_get_netdev(environment, 1), nullptr);
        return 0;
    });
}

TEST_P(platform_bootenv_of_each_kind, a_missing_record_is_all_zero_and_can_be_set)
{
    hold("bootdelay", "3");
    std::array<unsigned char, 18> record = {};
    on_open([&](AmbootEnv* environment) {
        const unsigned char* const current = amboot_env_get_netdev(environment, 0);
        EXPECT_TRUE(current != nullptr && std::equal(record.begin(), record.end(), current));
        return 0;
    });
    record[6] = 10;
    record[17] = 0xfe;
    EXPECT_EQ(
        on_open([&](AmbootEnv* environment) { return amboot_env_set_netdev(environment, 0, record.data()); }),
        DONE);
    const char* const file = GetParam() == std::string("uboot") ? "uboot.env" : "boot-environment.conf";
    EXPECT_NE(read_text(scratch / file)
                  .find("netdev0=0000000000000a0000000000000000000"
                        "0fe"),
              std::string::npos);
}

TEST_P(platform_bootenv_of_each_kind, a_record_that_is_not_hexadecimal_is_no_record)
{
    for (const char* const text :
         {"0102030405AAc0a80a02ffffff00c0a80a0", "0102030405AAc0a80a02ffffff00c0a80a0g"}) {
        hold("netdev0", text);
        on_open([&](AmbootEnv* environment) {
            EXPECT_EQ(amboot_env_get_netdev(environment, 0), nullptr) << text;
            return 0;
        });
    }
}

TEST_F(platform_bootenv, a_missing_key_file_is_an_empty_environment)
{
    EXPECT_EQ(hostname(), "(none)");
    EXPECT_EQ(set_hostname("camera"), DONE);
    EXPECT_EQ(read_text(scratch / "boot-environment.conf"), "[boot_environment]\nvesko_hostname=camera\n");
}

TEST_F(platform_bootenv, a_key_file_that_does_not_parse_is_never_written)
{
    write_text(scratch / "boot-environment.conf", "[boot_environment]\nvesko_hostname=camera\nbroken\n");
    EXPECT_EQ(set_hostname("other"), std::pair(-100, -100));
    EXPECT_EQ(read_text(scratch / "boot-environment.conf"),
              "[boot_environment]\nvesko_hostname=camera\nbroken\n");
    EXPECT_EQ(take_log().size(), 1U);
}

TEST_F(platform_bootenv, a_key_file_that_cannot_be_written_is_a_failure_of_the_close)
{
    fs::create_directory(scratch / "boot-environment.conf.new");
    EXPECT_EQ(set_hostname("camera"), std::pair(0, 1));
    EXPECT_FALSE(fs::exists(scratch / "boot-environment.conf"));
}

TEST_F(platform_bootenv, an_environment_of_uboot_that_cannot_be_read_whole_is_never_written)
{
    std::string damaged = uboot_image("vesko_hostname=camera");
    damaged[20] = static_cast<char>(damaged[20] ^ 1);
    for (const std::string& image :
         {damaged, std::string(), uboot_image("vesko_hostname=camera").substr(0, 1000),
          std::string(ENVIRONMENT_SIZE, '\xff')}) {
        use_uboot(image);
        EXPECT_EQ(set_hostname("other"), std::pair(-100, -100));
        EXPECT_EQ(read_text(scratch / "uboot.env"), image);
    }
}

TEST_F(platform_bootenv, an_environment_can_be_opened_again_after_a_failure)
{
    use_uboot("short");
    EXPECT_EQ(hostname(), "(none)");
    use_uboot(uboot_image("vesko_hostname=camera"));
    EXPECT_EQ(hostname(), "camera");
}

TEST_F(platform_bootenv, a_configuration_that_names_no_file_does_not_fall_back_to_the_key_file)
{
    write_text(scratch / "fw_env.config", (scratch / "missing.env").string() + " 0x0 0x1000\n");
    write_text(scratch / "boot-environment.conf", "[boot_environment]\nvesko_hostname=camera\n");
    EXPECT_EQ(set_hostname("other"), std::pair(-100, -100));
}

TEST_F(platform_bootenv, a_value_that_does_not_fit_is_a_failure_of_the_close_and_changes_nothing)
{
    use_uboot(uboot_image("vesko_hostname=camera"));
    EXPECT_NE(set_hostname(std::string(ENVIRONMENT_SIZE, 'x').c_str()).second, 0);
    EXPECT_EQ(hostname(), "camera");
}

TEST_F(platform_bootenv, an_environment_locked_by_another_program_is_a_failure_and_no_standstill)
{
    use_uboot(uboot_image("vesko_hostname=camera"));
    EXPECT_EQ(hostname(), "camera");
    const int lock = open("/var/lock/fw_printenv.lock", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    EXPECT_EQ(set_hostname("other"), std::pair(-100, -100));
    close(lock);
    EXPECT_EQ(hostname(), "camera");
}
