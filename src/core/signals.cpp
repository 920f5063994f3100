#include "core/signals.h"

#include "services/generated_files.h"
#include "settings/setting_store.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <glib/gprintf.h>

#include <array>
#include <csignal>

namespace {

constexpr std::array SERVED_SIGNALS = {SIGINT, SIGTERM, SIGABRT, SIGUSR1};

OwnedDescriptor noted_signals;
int note_descriptor = -1;
volatile std::sig_atomic_t terminating = 0;

void signal_handler(int number)
{
    const int saved_errno = errno;
    if (number != SIGUSR1)
        terminating = 1;
    const auto note = static_cast<unsigned char>(number);
    // A full pipe holds enough notes already.
    [[maybe_unused]] const ssize_t written = write(note_descriptor, &note, sizeof note);
    errno = saved_errno;
}

void write_setting_line(const SettingDef* row, FILE* stream, const char* key)
{
    OwnedJson value;
    if (row->read == nullptr || !row->read(row, value))
        return;
    const OwnedMallocText text(cJSON_Print(value.get()));
    if (text)
        std::fprintf(stream, "%s = %s\n", key, text.get());
}

gboolean serve_noted_signals(gint descriptor, GIOCondition, gpointer loop)
{
    unsigned char number = 0;
    while (read(descriptor, &number, sizeof number) == sizeof number) {
        g_printf("Quarn (Networking Configuration) - Received signal %d\n", number);
        std::fflush(stdout);
        if (number == SIGUSR1)
            dump_settings();
        else
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
    }
    return G_SOURCE_CONTINUE;
}

} // namespace

bool install_signal_handlers()
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    noted_signals = OwnedDescriptor(ends[0]);
    static OwnedDescriptor note_end;
    note_end = OwnedDescriptor(ends[1]);
    note_descriptor = note_end.get();

    struct sigaction action = {};
    action.sa_handler = signal_handler;
    sigemptyset(&action.sa_mask);
    for (const int number : SERVED_SIGNALS) {
        if (sigaction(number, &action, nullptr) != 0)
            return false;
    }
    return true;
}

void serve_signals(GMainLoop* loop)
{
    g_unix_fd_add(noted_signals.get(), G_IO_IN, serve_noted_signals, loop);
}

bool termination_requested()
{
    return terminating != 0;
}

void dump_settings()
{
    const OwnedFile stream = open_generated("current_settings.txt");
    if (stream)
        for_each_setting(write_setting_line, stream.get());
}
