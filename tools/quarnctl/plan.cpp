#include "plan.h"

#include "catalogue.h"
#include "values.h"

#include <algorithm>
#include <span>

namespace quarnctl {

namespace {

constexpr char GATEWAYS[] = "[IPv4/Manual]Gateways";
constexpr char FIRST_GATEWAY[] = "[IPv4/Manual]DefaultGateway";
constexpr const char* ADDRESS_KEYS[] = {"[IPv4/Manual]Address", "[IPv4/Manual]Netmask"};
constexpr char DHCP_ENABLED[] = "[IPv4/DHCP]Enabled";
constexpr char RATE_LIMIT[] = "[TrafficShaping]AvgRateLimit";
constexpr const char* LINK_SPEEDS[] = {"[NIC/eth0/AutoNegotiated]LinkSpeed", "[NIC/eth0/Manual]LinkSpeed"};

constexpr char MTU[] = "[NIC/eth0]MTU";
constexpr char IPV6_ENABLED[] = "[IPv6]Enabled";
// The kernel takes IPv6 off an interface with a smaller one.
constexpr double SMALLEST_IPV6_MTU = 1280;

using Keys = std::span<const char* const>;

bool is_one_of(Keys keys, std::string_view key)
{
    return std::ranges::find(keys, key) != keys.end();
}

bool names_one_of(Keys keys, const cJSON* settings)
{
    return std::ranges::any_of(keys, [&](const char* key) { return member(settings, key) != nullptr; });
}

bool is_empty_list(const cJSON* value)
{
    return cJSON_IsArray(value) && value->child == nullptr;
}

const cJSON* first_item(const cJSON* list)
{
    return cJSON_IsArray(list) ? list->child : nullptr;
}

// The daemon refuses null for these, so what they hold can be changed only.
bool can_be_taken_away(const Setting& setting)
{
    return can_be_null(setting) || setting.default_json == nullptr ||
           std::string_view(setting.default_json) != "null";
}

class Planner {
public:
    Planner(const cJSON* wanted, const cJSON* current, Unchanged unchanged)
        : wanted_(wanted), current_(current), unchanged_(unchanged), request_(new_object())
    {}

    Plan make()
    {
        for (const Setting& setting : all_settings()) {
            if (const cJSON* value = member(wanted_, setting.key); value != nullptr)
                add(setting, value);
            if (setting.key == GATEWAYS && member(request_.get(), GATEWAYS) == nullptr)
                keep_gateways();
        }
        const bool gets_ipv6_back = brings_ipv6_back();
        if (request_->child != nullptr)
            plan_.requests.push_back(std::move(request_));
        if (takes_gateways_away_)
            plan_.requests.push_back(request_without_gateways());
        if (gets_ipv6_back)
            plan_.requests.push_back(request_with_ipv6());
        return std::move(plan_);
    }

private:
    void add(const Setting& setting, const cJSON* value)
    {
        const cJSON* now = member(current_, setting.key);
        if (is_nothing(value) && !can_be_taken_away(setting)) {
            if (!is_nothing(now))
                leave_alone(setting, now);
            return;
        }
        if (setting.key == GATEWAYS && is_empty_list(value))
            take_gateways_away(now);
        else if (setting.key == FIRST_GATEWAY && member(wanted_, GATEWAYS) != nullptr)
            compare_first_gateway(value);
        else if (must_be_sent(setting, value, now))
            send(std::string(setting.key), value, now);
    }

    // Among others it is no reason to refuse them; who asks for nothing else must not be told that it is
    // done.
    void leave_alone(const Setting& setting, const cJSON* now)
    {
        (unchanged_ == Unchanged::SENT ? plan_.faults : plan_.left_alone)
            .push_back({std::string(setting.key), CODE_WRONG_FORM,
                        "cannot be taken away, only changed; it stays " + plain_text(now)});
    }

    // A link speed brings a rate limit of its own with it, so the wanted one is sent along.
    bool must_be_sent(const Setting& setting, const cJSON* value, const cJSON* now) const
    {
        return unchanged_ == Unchanged::SENT || !are_same(value, now) ||
               (setting.key == RATE_LIMIT && names_one_of(LINK_SPEEDS, request_.get()));
    }

    void send(const std::string& key, const cJSON* value, const cJSON* now)
    {
        put(request_.get(), key, copy_of(value));
        if (!are_same(value, now))
            plan_.changes.push_back({key, copy_of(now), copy_of(value)});
    }

    // The daemon takes an empty list for no change. The first gateway alone takes the others away, and then
    // null takes it away.
    void take_gateways_away(const cJSON* now)
    {
        if (first_item(now) == nullptr)
            return;
        OwnedJson first(cJSON_CreateArray());
        cJSON_AddItemToArray(first.get(), copy_of(first_item(now)).release());
        put(request_.get(), GATEWAYS, std::move(first));
        plan_.changes.push_back({GATEWAYS, copy_of(now), OwnedJson(cJSON_CreateArray())});
        takes_gateways_away_ = true;
    }

    // A new address takes the kernel's default routes away; the gateways sent with it bring them back.
    void keep_gateways()
    {
        const cJSON* now = member(current_, GATEWAYS);
        if (names_one_of(ADDRESS_KEYS, request_.get()) && first_item(now) != nullptr)
            put(request_.get(), GATEWAYS, copy_of(now));
    }

    // With a larger MTU the interface has IPv6 again, but neither the addresses nor the routes it had.
    bool brings_ipv6_back() const
    {
        const cJSON* now = member(current_, MTU);
        const cJSON* next = member(request_.get(), MTU);
        const cJSON* wanted_ipv6 = member(wanted_, IPV6_ENABLED);
        return cJSON_IsNumber(now) && now->valuedouble < SMALLEST_IPV6_MTU && cJSON_IsNumber(next) &&
               next->valuedouble >= SMALLEST_IPV6_MTU &&
               cJSON_IsTrue(wanted_ipv6 != nullptr ? wanted_ipv6 : member(current_, IPV6_ENABLED));
    }

    // Sent as it is once the MTU is there, the switch of IPv6 has all of it set anew.
    static OwnedJson request_with_ipv6()
    {
        OwnedJson request = new_object();
        put(request.get(), IPV6_ENABLED, OwnedJson(cJSON_CreateTrue()));
        return request;
    }

    // The first gateway has no effect of its own. While no DHCP client looks after the routes, the switch of
    // that client is sent along as it is, which has the routes set anew.
    OwnedJson request_without_gateways() const
    {
        OwnedJson request = new_object();
        const cJSON* wanted_dhcp = member(wanted_, DHCP_ENABLED);
        if (cJSON_IsFalse(wanted_dhcp != nullptr ? wanted_dhcp : member(current_, DHCP_ENABLED)))
            put(request.get(), DHCP_ENABLED, OwnedJson(cJSON_CreateFalse()));
        put(request.get(), FIRST_GATEWAY, OwnedJson(cJSON_CreateNull()));
        return request;
    }

    // Beside the list it says nothing new, and must not say something else.
    void compare_first_gateway(const cJSON* value)
    {
        const cJSON* first = first_item(member(wanted_, GATEWAYS));
        if (!is_nothing(value) && !are_same(value, first))
            plan_.faults.push_back(
                {FIRST_GATEWAY, CODE_COMBINATION,
                 std::string("is not the first of ") + GATEWAYS + ", which it must be where both are given"});
    }

    const cJSON* wanted_;
    const cJSON* current_;
    Unchanged unchanged_;
    OwnedJson request_;
    Plan plan_;
    bool takes_gateways_away_ = false;
};

void add_key(std::vector<std::string>& keys, std::string_view key)
{
    if (std::ranges::find(keys, key) == keys.end())
        keys.emplace_back(key);
}

void add_companions(std::vector<std::string>& keys, std::string_view key)
{
    if (key == GATEWAYS || key == FIRST_GATEWAY || is_one_of(ADDRESS_KEYS, key)) {
        add_key(keys, GATEWAYS);
        add_key(keys, FIRST_GATEWAY);
        add_key(keys, DHCP_ENABLED);
    }
    if (is_one_of(LINK_SPEEDS, key))
        add_key(keys, RATE_LIMIT);
    if (key == MTU)
        add_key(keys, IPV6_ENABLED);
}

} // namespace

std::vector<std::string> keys_to_read(const cJSON* wanted)
{
    std::vector<std::string> keys;
    for (const cJSON* item = wanted->child; item != nullptr; item = item->next)
        add_key(keys, item->string);
    for (const cJSON* item = wanted->child; item != nullptr; item = item->next)
        add_companions(keys, item->string);
    return keys;
}

Plan make_plan(const cJSON* wanted, const cJSON* current, Unchanged unchanged)
{
    return Planner(wanted, current, unchanged).make();
}

OwnedJson values_to_restore(const Plan& plan, const cJSON* current)
{
    std::vector<std::string> keys;
    for (const OwnedJson& request : plan.requests) {
        for (const cJSON* item = request->child; item != nullptr; item = item->next) {
            add_key(keys, item->string);
            add_companions(keys, item->string);
        }
    }
    OwnedJson values = new_object();
    for (const std::string& key : keys) {
        if (const cJSON* value = member(current, key); value != nullptr)
            put(values.get(), key, copy_of(value));
    }
    return values;
}

} // namespace quarnctl
