// A login manager for tests, on the bus that DBUS_SYSTEM_BUS_ADDRESS names. Its argument says how
// it behaves: accept, refuse (every request), nobody (no active session), silent (never answers a
// request) or vanish (ends instead of answering). It writes "ready" and then a line for each
// request to its standard output, and ends when its standard input does.

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace {

std::string_view behaviour;

void report(const char* request, const char* argument) {
    std::printf("%s %s\n", request, argument);
    std::fflush(stdout);
}

int answer(sd_bus_message* message, sd_bus_error* error) {
    if (behaviour == "refuse") {
        return sd_bus_error_set(error, SD_BUS_ERROR_INTERACTIVE_AUTHORIZATION_REQUIRED,
                                "Interactive authentication required.");
    }
    if (behaviour == "masked") {
        return sd_bus_error_set(error, "org.freedesktop.systemd1.UnitMasked", "Unit is masked.");
    }
    if (behaviour == "silent") {
        return 1; // taken, but never answered
    }
    if (behaviour == "vanish") {
        std::_Exit(0);
    }
    return sd_bus_reply_method_return(message, "");
}

int on_system_request(sd_bus_message* message, void* /*data*/, sd_bus_error* error) {
    int interactive = 0;
    const int result = sd_bus_message_read(message, "b", &interactive);
    if (result < 0) {
        return result;
    }
    report(sd_bus_message_get_member(message), interactive != 0 ? "asking the user" : "unattended");
    return answer(message, error);
}

int on_terminate_session(sd_bus_message* message, void* /*data*/, sd_bus_error* error) {
    const char* session = nullptr;
    const int result = sd_bus_message_read(message, "s", &session);
    if (result < 0) {
        return result;
    }
    report(sd_bus_message_get_member(message), session);
    return answer(message, error);
}

int get_active_session(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/,
                       const char* /*property*/, sd_bus_message* reply, void* /*data*/,
                       sd_bus_error* /*error*/) {
    const bool nobody = behaviour == "nobody";
    return sd_bus_message_append(reply, "(so)", nobody ? "" : "c7",
                                 nobody ? "/" : "/org/freedesktop/login1/session/c7");
}

// The tables are written with the macros of the library's header.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
const std::array<sd_bus_vtable, 6> manager = {{
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("PowerOff", "b", "", on_system_request, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Reboot", "b", "", on_system_request, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Suspend", "b", "", on_system_request, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("TerminateSession", "s", "", on_terminate_session, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
}};
const std::array<sd_bus_vtable, 3> seat = {{
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("ActiveSession", "(so)", get_active_session, 0, 0),
    SD_BUS_VTABLE_END,
}};
#pragma GCC diagnostic pop

bool offer(sd_bus* bus) {
    return sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/login1",
                                    "org.freedesktop.login1.Manager", manager.data(),
                                    nullptr) >= 0 &&
           sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/login1/seat/seat0",
                                    "org.freedesktop.login1.Seat", seat.data(), nullptr) >= 0 &&
           sd_bus_request_name(bus, "org.freedesktop.login1", 0) >= 0;
}

// Waits for the bus; false when standard input has ended.
bool wait_for_bus(sd_bus* bus) {
    std::array<pollfd, 2> descriptors{{{STDIN_FILENO, POLLIN, 0}, {sd_bus_get_fd(bus), POLLIN, 0}}};
    while (::poll(descriptors.data(), descriptors.size(), -1) == -1 && errno == EINTR) {
    }
    return descriptors[0].revents == 0;
}

} // namespace

int main(int argc, char** argv) {
    behaviour = argc > 1 ? argv[1] : "accept";
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0 || !offer(bus)) {
        return EXIT_FAILURE;
    }
    std::puts("ready");
    std::fflush(stdout);
    for (;;) {
        const int result = sd_bus_process(bus, nullptr);
        if (result < 0 || (result == 0 && !wait_for_bus(bus))) {
            break;
        }
    }
    sd_bus_flush_close_unref(bus);
    return EXIT_SUCCESS;
}
