// fuzz_get_request: any text as a get request.
#include "api/get_set.h"
#include "core/owned.h"
#include "surroundings.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    open_surroundings();
    char* text = nullptr;
    require(api_get(text_of(data, size).c_str(), &text) != 0, "a get request is answered");
    const OwnedMallocText response(text);
    require_response(response.get());
    return 0;
}
