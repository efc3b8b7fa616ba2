#include "KivFramework/platform/login_manager.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string_view>

#include <dlfcn.h>

namespace KivFramework::platform {
namespace {

// libsystemd is loaded on first use instead of linked, because it brings five more libraries into
// the process. It is never closed: a later load finds it and costs next to nothing, and no state
// of ours has to be kept between threads.
class systemd_library {
public:
    systemd_library() : handle_(::dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL)) {}

    /// Finds a function; null when it or the whole library is missing.
    template <typename function_type>
    bool find(const char* name, function_type*& function) const {
        function =
            handle_ == nullptr ? nullptr : reinterpret_cast<function_type*>(::dlsym(handle_, name));
        return function != nullptr;
    }

private:
    void* handle_;
};

// The types of libsystemd's interface. The first two are opaque there as well.
struct sd_bus;
struct sd_bus_message;
struct sd_bus_error {
    const char* name;
    const char* message;
    int need_free;
};

// The functions of libsystemd in use for messages; all have its documented signatures.
struct bus_functions {
    int (*open_system)(sd_bus** bus) = nullptr;
    sd_bus* (*flush_close_unref)(sd_bus* bus) = nullptr;
    int (*call_method)(sd_bus* bus, const char* destination, const char* path,
                       const char* interface, const char* member, sd_bus_error* error,
                       sd_bus_message** reply, const char* types, ...) = nullptr;
    int (*get_property)(sd_bus* bus, const char* destination, const char* path,
                        const char* interface, const char* member, sd_bus_error* error,
                        sd_bus_message** reply, const char* type) = nullptr;
    int (*read)(sd_bus_message* message, const char* types, ...) = nullptr;
    sd_bus_message* (*unref)(sd_bus_message* message) = nullptr;
    void (*error_free)(sd_bus_error* error) = nullptr;

    bool load() {
        const systemd_library library;
        return library.find("sd_bus_open_system", open_system) &&
               library.find("sd_bus_flush_close_unref", flush_close_unref) &&
               library.find("sd_bus_call_method", call_method) &&
               library.find("sd_bus_get_property", get_property) &&
               library.find("sd_bus_message_read", read) &&
               library.find("sd_bus_message_unref", unref) &&
               library.find("sd_bus_error_free", error_free);
    }
};

constexpr const char* service = "org.freedesktop.login1";

// A bus that cannot be reached has no login manager on it; the caller's own shortage says nothing
// about the system.
bool is_own_shortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

// Errors that come from the bus because no login manager took the call, or could be started to.
bool means_absent(std::string_view error_name) {
    constexpr std::string_view bus_errors = "org.freedesktop.DBus.Error.";
    if (!error_name.starts_with(bus_errors)) {
        return error_name.starts_with("org.freedesktop.systemd1.");
    }
    error_name.remove_prefix(bus_errors.size());
    return error_name == "ServiceUnknown" || error_name == "NameHasNoOwner" ||
           error_name == "Disconnected" || error_name == "NoServer" ||
           error_name.starts_with("Spawn.");
}

// A connection of its own for each request, so that threads share nothing. A call waits for its
// answer for 25 seconds at most, the default of libsystemd.
class login_manager_client {
public:
    explicit login_manager_client(const bus_functions& functions) : functions_(functions) {}
    ~login_manager_client() {
        if (bus_ != nullptr) {
            functions_.flush_close_unref(bus_);
        }
    }
    login_manager_client(const login_manager_client&) = delete;
    login_manager_client& operator=(const login_manager_client&) = delete;

    std::optional<int> connect() {
        const int error = -functions_.open_system(&bus_);
        if (error <= 0) {
            return 0;
        }
        return is_own_shortage(error) ? std::optional(error) : std::nullopt;
    }

    template <typename argument_type>
    std::optional<int> call(const char* member, const char* type, argument_type argument) {
        call_error error(functions_);
        const int result = functions_.call_method(bus_, service, "/org/freedesktop/login1",
                                                  "org.freedesktop.login1.Manager", member,
                                                  error.get(), /*reply=*/nullptr, type, argument);
        return error.answer(result);
    }

    std::optional<int> end_active_session() {
        call_error error(functions_);
        sd_bus_message* message = nullptr;
        const int result = functions_.get_property(
            bus_, service, "/org/freedesktop/login1/seat/seat0", "org.freedesktop.login1.Seat",
            "ActiveSession", error.get(), &message, "(so)");
        if (result < 0) {
            return error.answer(result);
        }
        const std::unique_ptr<sd_bus_message, decltype(functions_.unref)> reply(message,
                                                                                functions_.unref);
        const char* id = nullptr;
        const char* path = nullptr;
        const int read_result = functions_.read(message, "(so)", &id, &path);
        if (read_result < 0) {
            return -read_result;
        }
        if (*id == '\0') {
            return ENODATA;
        }
        return call("TerminateSession", "s", id);
    }

private:
    class call_error {
    public:
        explicit call_error(const bus_functions& functions) : functions_(functions) {}
        ~call_error() { functions_.error_free(&error_); }
        call_error(const call_error&) = delete;
        call_error& operator=(const call_error&) = delete;

        sd_bus_error* get() { return &error_; }

        std::optional<int> answer(int result) const {
            if (result >= 0) {
                return 0;
            }
            if (error_.name != nullptr && means_absent(error_.name)) {
                return std::nullopt;
            }
            return -result;
        }

    private:
        const bus_functions& functions_;
        sd_bus_error error_{};
    };

    const bus_functions& functions_;
    sd_bus* bus_ = nullptr;
};

struct free_deleter {
    void operator()(char* text) const { std::free(text); }
};
using c_string = std::unique_ptr<char, free_deleter>;

} // namespace
} // namespace KivFramework::platform

using namespace KivFramework;

std::optional<int> platform::send_login_request(login_request request) {
    bus_functions functions;
    if (!functions.load()) {
        return std::nullopt;
    }
    login_manager_client client(functions);
    const std::optional<int> connected = client.connect();
    if (connected != 0) {
        return connected;
    }
    constexpr int interactive = 0; // a "b" is passed as an int
    switch (request) {
    case login_request::power_off:
        return client.call("PowerOff", "b", interactive);
    case login_request::restart:
        return client.call("Reboot", "b", interactive);
    case login_request::suspend:
        return client.call("Suspend", "b", interactive);
    case login_request::end_active_session:
        break;
    }
    return client.end_active_session();
}

std::optional<uid_t> platform::console_user() {
    const systemd_library library;
    int (*seat_get_active)(const char* seat, char** session, uid_t* uid) = nullptr;
    int (*session_get_class)(const char* session, char** session_class) = nullptr;
    if (!library.find("sd_seat_get_active", seat_get_active) ||
        !library.find("sd_session_get_class", session_get_class)) {
        return std::nullopt;
    }
    char* session_text = nullptr;
    uid_t uid = 0;
    if (seat_get_active("seat0", &session_text, &uid) < 0) {
        return std::nullopt;
    }
    const c_string session(session_text);
    char* class_text = nullptr;
    if (session_get_class(session.get(), &class_text) < 0) {
        return std::nullopt; // it has ended since
    }
    const c_string session_class(class_text);
    // The login screen is a session too, that of the display manager's own account.
    if (std::string_view(session_class.get()) == "greeter") {
        return std::nullopt;
    }
    return uid;
}
