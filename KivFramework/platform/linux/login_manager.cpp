#include "KivFramework/platform/login_manager.h"

#include <cerrno>
#include <cstdint>
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

using sd_bus_message_handler = int (*)(sd_bus_message* message, void* data, sd_bus_error* error);

// The functions of libsystemd in use for messages; all have its documented signatures.
struct bus_functions {
    int (*open_system)(sd_bus** bus) = nullptr;
    sd_bus* (*flush_close_unref)(sd_bus* bus) = nullptr;
    int (*call_method_async)(sd_bus* bus, void** slot, const char* destination, const char* path,
                             const char* interface, const char* member,
                             sd_bus_message_handler handler, void* data, const char* types,
                             ...) = nullptr;
    int (*process)(sd_bus* bus, sd_bus_message** message) = nullptr;
    int (*wait)(sd_bus* bus, std::uint64_t timeout_us) = nullptr;
    int (*read)(sd_bus_message* message, const char* types, ...) = nullptr;
    sd_bus_message* (*ref)(sd_bus_message* message) = nullptr;
    sd_bus_message* (*unref)(sd_bus_message* message) = nullptr;
    const sd_bus_error* (*get_error)(sd_bus_message* message) = nullptr;
    int (*error_number)(const sd_bus_error* error) = nullptr;

    bool load() {
        const systemd_library library;
        return library.find("sd_bus_open_system", open_system) &&
               library.find("sd_bus_flush_close_unref", flush_close_unref) &&
               library.find("sd_bus_call_method_async", call_method_async) &&
               library.find("sd_bus_process", process) && library.find("sd_bus_wait", wait) &&
               library.find("sd_bus_message_read", read) &&
               library.find("sd_bus_message_ref", ref) &&
               library.find("sd_bus_message_unref", unref) &&
               library.find("sd_bus_message_get_error", get_error) &&
               library.find("sd_bus_error_get_errno", error_number);
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

// What comes back of one call.
class bus_reply {
public:
    explicit bus_reply(const bus_functions& functions) : functions_(functions) {}
    ~bus_reply() {
        if (message_ != nullptr) {
            functions_.unref(message_);
        }
    }
    bus_reply(const bus_reply&) = delete;
    bus_reply& operator=(const bus_reply&) = delete;

    /// The handler of the call, with the reply as its data.
    static int keep(sd_bus_message* message, void* reply, sd_bus_error* /*error*/) {
        auto& self = *static_cast<bus_reply*>(reply);
        self.message_ = self.functions_.ref(message);
        return 1; // taken
    }

    /// Null until the reply is there.
    sd_bus_message* message() const { return message_; }

    std::optional<int> result() const {
        const sd_bus_error* const error = functions_.get_error(message_);
        if (error == nullptr) {
            return 0;
        }
        return means_absent(error->name) ? std::nullopt
                                         : std::optional(functions_.error_number(error));
    }

private:
    const bus_functions& functions_;
    sd_bus_message* message_ = nullptr;
};

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
        bus_reply reply(functions_);
        return exchange(reply, "/org/freedesktop/login1", "org.freedesktop.login1.Manager", member,
                        type, argument);
    }

    std::optional<int> end_active_session() {
        bus_reply reply(functions_);
        const std::optional<int> answered =
            exchange(reply, "/org/freedesktop/login1/seat/seat0", "org.freedesktop.DBus.Properties",
                     "Get", "ss", "org.freedesktop.login1.Seat", "ActiveSession");
        if (answered != 0) {
            return answered;
        }
        const char* id = nullptr;
        const char* path = nullptr;
        const int read_result = functions_.read(reply.message(), "v", "(so)", &id, &path);
        if (read_result < 0) {
            return -read_result;
        }
        if (*id == '\0') {
            return ENODATA;
        }
        return call("TerminateSession", "s", id);
    }

private:
    // The library's own call that waits for its answer fails when a signal arrives, and nobody
    // knows then whether the request was taken. So the wait is made here, where it goes on.
    template <typename... argument_types>
    std::optional<int> exchange(bus_reply& reply, const char* path, const char* interface,
                                const char* member, const char* types,
                                argument_types... arguments) {
        constexpr std::uint64_t as_the_bus_says = UINT64_MAX;
        int result =
            functions_.call_method_async(bus_, /*slot=*/nullptr, service, path, interface, member,
                                         bus_reply::keep, &reply, types, arguments...);
        while (result >= 0 && reply.message() == nullptr) {
            result = functions_.process(bus_, /*message=*/nullptr);
            if (result == 0) {
                result = functions_.wait(bus_, as_the_bus_says);
            }
            if (result == -EINTR) {
                result = 0;
            }
        }
        return result < 0 ? -result : reply.result();
    }

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
