// net/row_name.h: the name of a setting in a reader's log lines.
#pragma once

#include "core/log.h"
#include "settings/setting_def.h"

// The row's key; without a row or key "<unknown>", and a line in the name of the reader that asks.
inline const char* row_name(const SettingDef* row, const char* reader)
{
    if (row != nullptr && row->key != nullptr)
        return row->key;
    log_message(LEVEL_WARNING, "%s: There was a null pointer in the setting obj", reader);
    return "<unknown>";
}
