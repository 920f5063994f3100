#include "msgbus.h"

#include "owners.h"
#include "platform_log.h"

#include <glib.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

constexpr char NAME[] = "com.vesko.networkingV2";
constexpr char PATH[] = "/com/vesko/networkingV2";
constexpr char NO_RESPONSE[] = "com.vesko.networkingV2.Error.NoResponse";

void destroy_source(GSource* source)
{
    g_source_destroy(source);
    g_source_unref(source);
}

} // namespace

// The source goes before the connection that it watches.
struct MsgBus {
    std::unique_ptr<sd_bus, platform::Release<sd_bus_flush_close_unref>> connection;
    std::unique_ptr<GSource, platform::Release<destroy_source>> source;
    const com_vesko_networkingV2_provider* provider = nullptr;
    void (*lost)(void* data) = nullptr;
    void* lost_data = nullptr;
};

namespace {

// The bus connection as a source of the main loop.
struct BusSource {
    GSource source;
    MsgBus* bus;
    gpointer descriptor;
    int events;
};

// sd-bus gives an absolute time of the monotonic clock in microseconds; -1 is no time-out.
int milliseconds_left(sd_bus* connection)
{
    std::uint64_t deadline = 0;
    if (sd_bus_get_timeout(connection, &deadline) < 0)
        return 0;
    if (deadline == UINT64_MAX)
        return -1;
    const auto now = static_cast<std::uint64_t>(g_get_monotonic_time());
    return deadline <= now ? 0
                           : static_cast<int>(MIN((deadline - now + 999) / 1000, std::uint64_t{G_MAXINT}));
}

gboolean prepare_source(GSource* base, gint* timeout)
{
    auto* const source = reinterpret_cast<BusSource*>(base);
    const int events = sd_bus_get_events(source->bus->connection.get());
    // A connection that is gone: the dispatch finds it out and says so.
    if (events < 0)
        return TRUE;
    // Asking for the same events again would wake the main loop without end.
    if (events != source->events)
        g_source_modify_unix_fd(base, source->descriptor, static_cast<GIOCondition>(events));
    source->events = events;
    *timeout = milliseconds_left(source->bus->connection.get());
    return *timeout == 0;
}

gboolean check_source(GSource* base)
{
    auto* const source = reinterpret_cast<BusSource*>(base);
    return g_source_query_unix_fd(base, source->descriptor) != 0 ||
           milliseconds_left(source->bus->connection.get()) == 0;
}

// One message a turn, so that a flood of calls starves nothing else.
gboolean dispatch_source(GSource* base, GSourceFunc, gpointer)
{
    MsgBus* const bus = reinterpret_cast<BusSource*>(base)->bus;
    const int result = sd_bus_process(bus->connection.get(), nullptr);
    if (result >= 0 || result == -EINTR || result == -EAGAIN)
        return G_SOURCE_CONTINUE;
    platform_log(PRIORITY_ERROR, "%s: the message bus has gone away: %s", __func__, std::strerror(-result));
    if (bus->lost != nullptr)
        bus->lost(bus->lost_data);
    return G_SOURCE_REMOVE;
}

GSourceFuncs source_functions = {prepare_source, check_source, dispatch_source, nullptr, nullptr, nullptr};

GSource* attach_source(MsgBus* bus)
{
    GSource* const base = g_source_new(&source_functions, sizeof(BusSource));
    auto* const source = reinterpret_cast<BusSource*>(base);
    source->bus = bus;
    source->events = G_IO_IN;
    source->descriptor = g_source_add_unix_fd(base, sd_bus_get_fd(bus->connection.get()), G_IO_IN);
    // A source that may not recurse is taken out of the poll set for its dispatch, and GLib then wakes its
    // own loop up twice a call. Nothing here runs the loop from inside a call.
    g_source_set_can_recurse(base, TRUE);
    g_source_attach(base, nullptr);
    return base;
}

// Every call is answered: a text that the bus refuses becomes an error too.
int answer(sd_bus_message* call, MsgBusCall provide, sd_bus_error* error)
{
    const char* request = nullptr;
    const int result = sd_bus_message_read(call, "s", &request);
    if (result < 0)
        return result;
    char* response = nullptr;
    const bool answered = provide(request, &response) != 0;
    const platform::MallocText text(response);
    if (!answered || !text)
        return sd_bus_error_set_const(error, NO_RESPONSE, "The request yielded no response");
    const int sent = sd_bus_reply_method_return(call, "s", text.get());
    if (sent >= 0)
        return 1;
    platform_log(PRIORITY_ERROR, "%s: a response could not be sent: %s", __func__, std::strerror(-sent));
    return sd_bus_error_set_const(error, NO_RESPONSE, "The response cannot be sent over the bus");
}

int answer_api_get(sd_bus_message* call, void* data, sd_bus_error* error)
{
    return answer(call, static_cast<MsgBus*>(data)->provider->api_get, error);
}

int answer_api_set(sd_bus_message* call, void* data, sd_bus_error* error)
{
    return answer(call, static_cast<MsgBus*>(data)->provider->api_set, error);
}

// Unprivileged: who may call is the bus policy's to say, else sd-bus asks the caller for CAP_SYS_ADMIN.
const sd_bus_vtable INTERFACE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("api_get", "s", SD_BUS_PARAM(request), "s", SD_BUS_PARAM(response),
                             answer_api_get, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("api_set", "s", SD_BUS_PARAM(request), "s", SD_BUS_PARAM(response),
                             answer_api_set, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("IPv4AddressChange", "s", SD_BUS_PARAM(address), 0),
    SD_BUS_SIGNAL_WITH_NAMES("IPv6AddressAdded", "s", SD_BUS_PARAM(address), 0),
    SD_BUS_SIGNAL_WITH_NAMES("IPv6AddressRemoved", "s", SD_BUS_PARAM(address), 0),
    SD_BUS_SIGNAL_WITH_NAMES("MTUChange", "i", SD_BUS_PARAM(mtu), 0),
    SD_BUS_VTABLE_END};

int emitted(int result, const char* signal)
{
    if (result >= 0)
        return 1;
    platform_log(PRIORITY_WARNING, "%s: %s could not be sent: %s", __func__, signal, std::strerror(-result));
    return 0;
}

int emit_text(MsgBus* bus, const char* signal, const char* text)
{
    return emitted(sd_bus_emit_signal(bus->connection.get(), PATH, NAME, signal, "s", text), signal);
}

} // namespace

int msgbus_connect(MsgBus** bus)
{
    sd_bus* connection = nullptr;
    int result = sd_bus_open_system(&connection);
    auto opened = std::make_unique<MsgBus>();
    opened->connection.reset(connection);
    if (result >= 0)
        result = sd_bus_request_name(connection, NAME, 0);
    if (result < 0) {
        platform_log(PRIORITY_ERROR, "%s: no place on the message bus: %s", __func__, std::strerror(-result));
        return 0;
    }
    opened->source.reset(attach_source(opened.get()));
    *bus = opened.release();
    return 1;
}

void msgbus_disconnect(MsgBus* bus)
{
    delete bus;
}

void msgbus_on_connection_lost(MsgBus* bus, void (*lost)(void* data), void* data)
{
    bus->lost = lost;
    bus->lost_data = data;
}

int msgbus_register_com_vesko_networkingV2_provider(MsgBus* bus,
                                                    const com_vesko_networkingV2_provider* provider, int)
{
    bus->provider = provider;
    const int result = sd_bus_add_object_vtable(bus->connection.get(), nullptr, PATH, NAME, INTERFACE, bus);
    if (result < 0)
        platform_log(PRIORITY_ERROR, "%s: the interface is refused: %s", __func__, std::strerror(-result));
    return result >= 0;
}

int com_vesko_networkingV2_IPv4AddressChange_notify(MsgBus* bus, const char* address)
{
    return emit_text(bus, "IPv4AddressChange", address);
}

int com_vesko_networkingV2_IPv6AddressAdded_notify(MsgBus* bus, const char* address)
{
    return emit_text(bus, "IPv6AddressAdded", address);
}

int com_vesko_networkingV2_IPv6AddressRemoved_notify(MsgBus* bus, const char* address)
{
    return emit_text(bus, "IPv6AddressRemoved", address);
}

int com_vesko_networkingV2_MTUChange_notify(MsgBus* bus, int mtu)
{
    const int result = sd_bus_emit_signal(bus->connection.get(), PATH, NAME, "MTUChange", "i", mtu);
    return emitted(result, "MTUChange");
}
