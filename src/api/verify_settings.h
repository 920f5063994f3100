// api/verify_settings.h: the whole of a set request is checked before anything of it is saved.
#pragma once

struct SettingRequest;
struct JsonResponse;

// Runs every row's verifier and then every group check, so that one answer tells all faults. True when the
// request may be saved. An unknown key is reported but does not by itself refuse the request.
bool verify_settings(SettingRequest* request, JsonResponse* response);
