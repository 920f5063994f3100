#include "api/get_set.h"
#include "apply/apply.h"
#include "core/log.h"
#include "core/notify.h"
#include "core/process.h"
#include "core/signals.h"
#include "msgbus.h"
#include "net/dhcp.h"
#include "settings/setting_store.h"
#include "trell_core.h"

#include <systemd/sd-daemon.h>

#include <cstdio>
#include <memory>
#include <string_view>

namespace {

constexpr char USAGE[] = "Usage: quarn\n"
                         "Network configuration daemon of eth0. A supervisor starts it, and it stays in the "
                         "foreground; quarnctl\n"
                         "works with it. It takes no arguments but --help and --version. See quarn(8).\n";

// Whether a person only asked what this is; a supervisor gives no arguments.
bool answer_person(int argc, char** argv)
{
    const std::string_view word = argc == 2 ? argv[1] : "";
    if (word == "--version")
        std::puts("quarn " QUARN_VERSION);
    else if (word == "--help" || word == "-h")
        std::fputs(USAGE, stdout);
    else
        return false;
    return true;
}

bool register_callbacks(MsgBus* bus)
{
    static constexpr com_vesko_networkingV2_provider PROVIDER = {api_get, api_set};
    if (msgbus_register_com_vesko_networkingV2_provider(bus, &PROVIDER, 0) == 0) {
        log_message(LEVEL_CRITICAL, "%s:%d: Could not register messagebus provider functions", HERE);
        return false;
    }
    return true;
}

// Without its bus the daemon serves nobody: it ends in order, and the supervisor starts it again.
void quit_loop(void* loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
}

GSource* attach_signal_source(MsgBus* bus)
{
    GSource* source = create_signal_source();
    init_signal_queues(signal_flags_of(source), bus);
    g_source_set_callback(source, send_signals, signal_flags_of(source), nullptr);
    g_source_attach(source, nullptr);
    return source;
}

void serve(GMainLoop* loop, MsgBus* bus)
{
    init_setting_storage();
    register_callbacks(bus);
    GSource* source = attach_signal_source(bus);
    if (!apply_settings(APPLY_EVERYTHING, ApplyRun::START_UP)) {
        log_message(LEVEL_CRITICAL, "%s:%d: Failure in trying to apply all settings on startup", HERE);
        sd_notify(0, "ERRNO=5");
    }
    // Ready in every case: a camera that is half set up must still be reachable.
    sd_notify(0, "READY=1");
    g_main_loop_run(loop);

    g_source_destroy(source);
    g_source_unref(source);
    msgbus_disconnect(bus);
    stop_any_dhcpv4();
    stop_any_dhcpv6();
    clear_signal_queues();
    deinit_setting_storage();
}

} // namespace

int main(int argc, char** argv)
{
    if (answer_person(argc, argv))
        return 0;
    prepare_process();
    trell_core_init(argc, argv);
    start_logging();
    install_signal_handlers();
    const std::unique_ptr<GMainLoop, Releaser<g_main_loop_unref>> loop(g_main_loop_new(nullptr, FALSE));
    serve_signals(loop.get());

    MsgBus* bus = nullptr;
    if (msgbus_connect(&bus) == 0) {
        log_message(LEVEL_CRITICAL, "%s:%d: Could not connect to message bus.", HERE);
        sd_notify(0, "ERRNO=5");
        return 0;
    }
    msgbus_on_connection_lost(bus, quit_loop, loop.get());
    serve(loop.get(), bus);
    stop_logging();
    trell_core_deinit();
    return 0;
}
