#include "documents.h"

#include "catalogue.h"
#include "report.h"
#include "values.h"

#include <string_view>

namespace quarnctl {

namespace {

constexpr char INTRODUCTION[] =
    R"(# Settings

Every setting of the daemon, in the order of its table. This page is made of quarnctl's catalogue
(`quarnctl settings-document > docs/settings.md`); `quarnctl describe KEY` says the same at the camera.

Where a value is kept:

| Kept in | Meaning |
|---|---|
| store | the daemon's settings database; survives restarts and power cuts |
| boot environment | the boot loader's environment, and the store beside it |
| memory | the daemon's memory, gone when it ends: what DHCP clients and discovery report |
| live | the state of the system, read at the moment |
| read-only | cannot be set: a constant of the camera, or what the daemon remembers for itself |

)";

// "IPv4" of "[IPv4/DHCP]Enabled".
std::string_view section_of(std::string_view key)
{
    const std::string_view inside = key.substr(1);
    return inside.substr(0, inside.find_first_of("/]"));
}

// A bar would end the cell.
std::string cell(std::string_view text)
{
    std::string result;
    for (const char letter : text) {
        result += letter == '|' ? "\\" : "";
        result += letter;
    }
    return result;
}

std::string row_of(const Setting& setting)
{
    std::string row = "| `" + std::string(setting.key) + "`<br>" + cell(setting.description);
    row += std::string(" | ") + name_of(setting.type);
    row += " | " + cell(can_be_set(setting) ? setting.accepts : "cannot be set");
    row += " | `" + cell(json_text(default_of(setting).get())) + "`";
    row += setting.default_json == nullptr ? " or `eth0_max_speed`" : "";
    row += std::string(" | ") + name_of(setting.storage);
    return row + " | " + (can_be_set(setting) ? cell(effect_of(setting)) : "") + " |\n";
}

constexpr char MANUAL_INTRODUCTION[] =
    R"(quarn-settings(7) "quarn" "Miscellaneous"

# NAME

quarn-settings - settings of the network configuration daemon

# DESCRIPTION

Every setting of *quarn*(8), in the order of its table: what it is, what is
accepted, its default, where it is kept, and what a change does. *quarnctl*(1)
reads and changes them.

A value in the _store_ survives restarts and power cuts; one in the _boot
environment_ does too, and the boot loader sees it. One in _memory_ is gone when
the daemon ends: it is what DHCP clients and discovery report. A _live_ value is
the state of the system at the moment, and a _read-only_ one a constant of the
camera.
)";

// scdoc underlines, sets bold and draws tables by these.
std::string escaped(std::string_view text)
{
    constexpr std::string_view MARKUP = "\\_*[]|#<>~`";
    std::string result;
    for (const char letter : text) {
        result += MARKUP.find(letter) != std::string_view::npos ? "\\" : "";
        result += letter;
    }
    return result;
}

std::string entry_of(const Setting& setting)
{
    std::string entry = "\n*" + escaped(setting.key) + "*\n\t" + escaped(setting.description) + "++\n";
    if (can_be_set(setting))
        entry += "Accepts " + escaped(setting.accepts) + ".++\n";
    entry += "Default: " + escaped(json_text(default_of(setting).get()));
    entry += setting.default_json == nullptr ? ", or eth0\\_max\\_speed of quarn.conf" : "";
    entry += std::string(". Kept in: ") + name_of(setting.storage) + ".";
    if (can_be_set(setting))
        entry += "++\nA change: " + escaped(effect_of(setting)) + ".";
    return entry + "\n";
}

} // namespace

std::string settings_document()
{
    std::string document = INTRODUCTION;
    std::string_view section;
    for (const Setting& setting : all_settings()) {
        if (section_of(setting.key) != section) {
            document += section.empty() ? "" : "\n";
            section = section_of(setting.key);
            document += "## " + std::string(section) +
                        "\n\n| Setting | Type | Accepts | Default | Kept in | A change "
                        "|\n|---|---|---|---|---|---|\n";
        }
        document += row_of(setting);
    }
    return document;
}

void print_settings_document()
{
    const std::string document = settings_document();
    print_line(std::string_view(document).substr(0, document.size() - 1));
}

std::string settings_manual()
{
    std::string manual = MANUAL_INTRODUCTION;
    std::string_view section;
    for (const Setting& setting : all_settings()) {
        if (section_of(setting.key) != section) {
            section = section_of(setting.key);
            manual += "\n# " + escaped(section) + "\n";
        }
        manual += entry_of(setting);
    }
    return manual + "\n# SEE ALSO\n\n*quarn*(8), *quarnctl*(1), *quarn.conf*(5)\n";
}

void print_settings_manual()
{
    const std::string manual = settings_manual();
    print_line(std::string_view(manual).substr(0, manual.size() - 1));
}

void print_keys_for_completion()
{
    for (const Setting& setting : all_settings())
        print_line(std::string(setting.key) + "\t" + name_of(setting.type) + "\t" +
                   (can_be_set(setting) ? "rw" : "ro"));
}

} // namespace quarnctl
