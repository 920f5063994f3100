// bench-echo: the least daemon there can be on the bus, with which the real one is compared. "echo"
// gives its text back; "run" runs the commands of the file that it names and answers with their exit
// statuses.
#include "commands.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <cstdint>

namespace {

int echo(sd_bus_message* call, void*, sd_bus_error*)
{
    const char* text = nullptr;
    const int result = sd_bus_message_read(call, "s", &text);
    return result < 0 ? result : sd_bus_reply_method_return(call, "s", text);
}

int run(sd_bus_message* call, void*, sd_bus_error*)
{
    const char* file = nullptr;
    const int result = sd_bus_message_read(call, "s", &file);
    const char* const statuses = result < 0 ? nullptr : run_commands(file);
    return statuses == nullptr ? -EINVAL : sd_bus_reply_method_return(call, "s", statuses);
}

const sd_bus_vtable INTERFACE[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("echo", "s", "s", echo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("run", "s", "s", run, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};

} // namespace

int main()
{
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0 ||
        sd_bus_add_object_vtable(bus, nullptr, "/com/vesko/bench", "com.vesko.bench", INTERFACE, nullptr) <
            0 ||
        sd_bus_request_name(bus, "com.vesko.bench", 0) < 0)
        return 1;
    sd_notify(0, "READY=1");
    while (true) {
        int result = sd_bus_process(bus, nullptr);
        if (result == 0)
            result = sd_bus_wait(bus, UINT64_MAX);
        if (result < 0)
            return 1;
    }
}
