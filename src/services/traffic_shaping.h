// services/traffic_shaping.h: outbound traffic shaping on eth0 with a hierarchical token bucket.
// Rates in kbit/s, burst sizes in bytes.
#pragma once

#include "settings/setting_def.h"

struct SettingRequest;

// Installs, updates or removes the tree as the settings say.
bool quarn_apply_trafficshape_tree();
// Puts the filters for the web and RTSP ports in step with the settings, where a tree is installed.
bool quarn_apply_trafficshape_ports();

// The least average rate limit that a request may set.
bool read_min_avg_rate_limit(const SettingDef* row, OwnedJson& value);
bool read_burst_time(const SettingDef* row, OwnedJson& value);

// Group check: the average rate leaves enough for the media class, and the burst suffices for the rate.
bool verify_group_trafficshaping_rates(SettingRequest* request, JsonResponse* response);
