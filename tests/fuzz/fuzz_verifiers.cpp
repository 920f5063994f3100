// fuzz_verifiers: any JSON value before any of the shared verifiers. The first byte picks the verifier, the
// rest is the value; the same text goes through the text tests.
#include "api/json_response.h"
#include "api/text_tests.h"
#include "api/verifiers.h"
#include "surroundings.h"

#include <cstring>
#include <iterator>

namespace {

constexpr char HOST_BYTES[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
constexpr char ADDRESS_BYTES[] = "ABCDEFabcdef0123456789.:";
constexpr char CIDR_BYTES[] = "ABCDEFabcdef0123456789.:/";
constexpr char SERVER_BYTES[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-:";

enum class Accepts { VALUES, SERVERS, CIDRS };

struct FuzzedVerifier {
    bool (*verify)(cJSON* item, JsonResponse* response);
    Accepts accepts;
};

constexpr FuzzedVerifier VERIFIERS[] = {
    {verify_is_bool, Accepts::VALUES},
    {verify_is_string, Accepts::VALUES},
    {verify_is_number, Accepts::VALUES},
    {verify_is_percentage, Accepts::VALUES},
    {verify_arr_strs, Accepts::VALUES},
    {verify_is_file, Accepts::VALUES},
    {verify_server_list_any, Accepts::SERVERS},
    {verify_server_list_host_or_ipv4, Accepts::SERVERS},
    {verify_server_list_host_or_ipv6, Accepts::SERVERS},
    {[](cJSON* item, JsonResponse* response) { return verify_ipv6_cidr_list(item, response, 1, 128, 16); },
     Accepts::CIDRS},
};

// Such a text is one plain word of a command line.
void require_plain(const char* text, const char* bytes)
{
    require(*text != '\0' && *text != '-' && text[std::strspn(text, bytes)] == '\0',
            "what is accepted is plain");
}

void test_text(const char* text)
{
    if (is_ipv4_dotted_quad(text))
        require_plain(text, ADDRESS_BYTES);
    require(!is_unicast_ipv4_address(text) || is_ipv4_dotted_quad(text),
            "a unicast address is a dotted quad");
    require(!is_unicast_ipv4_address(text) || ipv4_to_host_order(text) != 0, "a unicast address is a number");
    if (is_ipv6_address(text))
        require_plain(text, ADDRESS_BYTES);
    if (is_valid_hostname(text))
        require_plain(text, HOST_BYTES);
    std::uint32_t length = 0;
    if (parse_prefix_length(text, 0, 128, length))
        require(std::to_string(length) == text, "a prefix length is written in one way");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    open_surroundings();
    if (size == 0)
        return 0;
    const FuzzedVerifier& verifier = VERIFIERS[data[0] % std::size(VERIFIERS)];
    const std::string text = text_of(data + 1, size - 1);
    test_text(text.c_str());

    const OwnedJson object(cJSON_CreateObject());
    cJSON* item = cJSON_Parse(text.c_str());
    if (item == nullptr)
        return 0;
    cJSON_AddItemToObject(object.get(), "[Fuzz]Value", item);
    const std::unique_ptr<JsonResponse> response = json_response_new();
    const bool accepted = verifier.verify(item, response.get());
    require_response(json_response_print(*response).get());
    require(accepted || !response->reported.empty(), "what is refused has its error");
    if (!accepted || verifier.accepts == Accepts::VALUES)
        return 0;
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, item)
        require_plain(element->valuestring, verifier.accepts == Accepts::CIDRS ? CIDR_BYTES : SERVER_BYTES);
    return 0;
}
