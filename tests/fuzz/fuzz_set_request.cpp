// fuzz_set_request: any text as a set request. It is parsed, verified and saved, but never applied.
#include "api/get_set.h"
#include "apply/apply.h"
#include "core/owned.h"
#include "surroundings.h"

#include <cstring>

// Stands before the daemon's: an input may well ask for its settings to be applied, and this is a real
// machine.
bool apply_settings(std::uint32_t, ApplyRun)
{
    return true;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    open_surroundings();
    char* text = nullptr;
    require(api_set(text_of(data, size).c_str(), &text) != 0, "a set request is answered");
    const OwnedMallocText response(text);
    require_response(response.get());

    require(api_get(R"({"settings":["[NIC/eth0]MTU","[IPv6/Manual]Gateways","[IPv4/Manual]Address"]})",
                    &text) != 0,
            "the next request is answered");
    const OwnedMallocText values(text);
    require_response(values.get());
    require(std::strncmp(values.get(), R"({"success":true,"errors":[],)", 28) == 0,
            "what was saved can be read");
    return 0;
}
