// fuzz_quarnctl: any bytes as a configuration file, as the words of a command line and as a record of a
// change.
#include "catalogue.h"
#include "change_record.h"
#include "configuration_file.h"
#include "nearest.h"
#include "plan.h"
#include "report.h"
#include "surroundings.h"
#include "values.h"
#include "words.h"

#include <algorithm>
#include <string>

namespace {

using quarnctl::Unchanged;

void require_printable(const std::vector<quarnctl::Fault>& faults)
{
    for (const quarnctl::Fault& fault : faults) {
        const std::string text = quarnctl::fault_text(fault);
        require(std::ranges::none_of(text, [](char byte) { return g_ascii_iscntrl(byte); }),
                "no fault forges a line or speaks to the terminal");
    }
}

void plan_configuration(const std::string& text)
{
    quarnctl::ConfigurationFile file = quarnctl::parse_configuration(text);
    require_printable(file.faults);
    quarnctl::skip_unknown_keys(file);
    if (!file.faults.empty())
        return;
    const cJSON* settings = file.settings.get();
    const OwnedJson nothing = quarnctl::new_object();
    const quarnctl::Plan plan = quarnctl::make_plan(settings, nothing.get(), Unchanged::LEFT_OUT);
    require_printable(plan.faults);
    require_printable(plan.left_alone);
    require(quarnctl::make_plan(settings, settings, Unchanged::LEFT_OUT).requests.empty(),
            "what is there already is not sent");
    const OwnedJson restore = quarnctl::values_to_restore(plan, settings);
    for (const cJSON* item = restore->child; item != nullptr; item = item->next)
        require(quarnctl::find_setting(item->string) != nullptr, "only settings are restored");
}

void take_words(const std::string& text)
{
    quarnctl::Assignment assignment;
    if (quarnctl::parse_assignment(text, assignment))
        require(!assignment.key.empty(), "an assignment has a key");
    for (const quarnctl::Setting& setting : quarnctl::all_settings()) {
        (void)quarnctl::value_of_word(setting, text);
        const OwnedJson items = quarnctl::is_list(setting) ? quarnctl::items_of_word(setting, text) : nullptr;
        if (!items)
            continue;
        const OwnedJson list = quarnctl::default_of(setting);
        quarnctl::add_items(list.get(), items.get());
        quarnctl::remove_items(list.get(), items.get());
        for (const cJSON* item = items->child; item != nullptr; item = item->next)
            require(cJSON_GetArraySize(list.get()) == 0 || !quarnctl::are_same(list->child, item),
                    "a removed item is gone");
    }
    require(quarnctl::nearest_keys(text).size() <= 3, "three suggestions at most");
}

void read_record(const std::string& content)
{
    write_scratch_file("pending.json", content);
    const quarnctl::ChangeFolder folder(scratch_path(""));
    if (const auto record = folder.read(quarnctl::PENDING)) {
        require(!record->id.empty() && cJSON_IsObject(record->restore.get()),
                "a record says what to restore");
        (void)folder.deadline_of(*record);
        (void)folder.is_of_earlier_boot(*record);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    open_surroundings();
    const std::string content = Input(data, size).take_rest();
    plan_configuration(content);
    take_words(content);
    read_record(content);
    return 0;
}
