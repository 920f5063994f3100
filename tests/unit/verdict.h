// verdict.h: what a verifier says to a value.
#pragma once

#include "api/json_response.h"
#include "support.h"

#include <ostream>
#include <string>

// The result, the whole response, and what is left of the value.
struct Verdict {
    bool accepted;
    std::string response;
    std::string value;

    bool operator==(const Verdict&) const = default;
};

inline void PrintTo(const Verdict& verdict, std::ostream* stream)
{
    *stream << (verdict.accepted ? "accepted " : "refused ") << verdict.value << " with " << verdict.response;
}

inline Verdict verdict_of(bool (*verifier)(cJSON* item, JsonResponse* response), const char* key,
                          const std::string& value)
{
    const OwnedJson item = setting(key, value.c_str());
    const std::unique_ptr<JsonResponse> response = json_response_new();
    const bool accepted = verifier(item.get(), response.get());
    return {accepted, print(response->root.get()), print(item.get())};
}

// Success is for the caller to say: a new response says false.
inline Verdict accepted(const std::string& value)
{
    return {true, R"({"success":false,"errors":[]})", value};
}

inline Verdict refused(const char* key, int code, const std::string& message, const std::string& value)
{
    return {false,
            R"({"success":false,"errors":[{"key":")" + std::string(key) + R"(","code":)" +
                std::to_string(code) + R"(,"msg":")" + message + R"("}]})",
            value};
}
