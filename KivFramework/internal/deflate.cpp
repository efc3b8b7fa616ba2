#include "KivFramework/internal/deflate.h"

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <new>

#include <pthread.h>

namespace KivFramework::internal {
namespace {

class deflate_state {
public:
    deflate_state() = default;
    ~deflate_state() {
        if (ready_) {
            deflateEnd(&stream_);
        }
    }
    deflate_state(const deflate_state&) = delete;
    deflate_state& operator=(const deflate_state&) = delete;

    /// The stream, as new; null when there is no memory for one.
    z_stream* renew() {
        if (ready_) {
            deflateReset(&stream_); // cannot fail on a stream that was set up
            return &stream_;
        }
        ready_ = deflateInit(&stream_, Z_DEFAULT_COMPRESSION) == Z_OK;
        return ready_ ? &stream_ : nullptr;
    }

private:
    z_stream stream_{};
    bool ready_ = false;
};

// Outlives the states below: the last destructors of the process may still compress.
constinit std::atomic<bool> states_are_gone = false;

// The states of all threads, each freed when its thread ends. A thread_local object would do the
// same, but without memory for the registration of its destructor the C library ends the process.
class thread_states {
public:
    thread_states() : has_key_(pthread_key_create(&key_, free_state) == 0) {}
    ~thread_states() {
        states_are_gone = true;
        if (has_key_) {
            free_state(pthread_getspecific(key_)); // the last thread does not end, it exits
            pthread_key_delete(key_);
        }
    }
    thread_states(const thread_states&) = delete;
    thread_states& operator=(const thread_states&) = delete;

    /// The calling thread's; null when it can have none.
    deflate_state* own() const {
        if (!has_key_) {
            return nullptr;
        }
        if (void* const state = pthread_getspecific(key_)) {
            return static_cast<deflate_state*>(state);
        }
        std::unique_ptr<deflate_state> state(new (std::nothrow) deflate_state);
        if (state == nullptr || pthread_setspecific(key_, state.get()) != 0) {
            return nullptr;
        }
        return state.release();
    }

private:
    static void free_state(void* state) { delete static_cast<deflate_state*>(state); }

    pthread_key_t key_{};
    bool has_key_;
};

std::size_t deflate_with(deflate_state& state, std::string_view text, char* destination,
                         std::size_t capacity) {
    z_stream* const stream = state.renew();
    if (stream == nullptr) {
        return 0;
    }
    // zlib never writes through next_in; its type is older than const.
    stream->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream->avail_in = static_cast<uInt>(text.size());
    stream->next_out = reinterpret_cast<Bytef*>(destination);
    stream->avail_out =
        static_cast<uInt>(std::min<std::size_t>(capacity, std::numeric_limits<uInt>::max()));
    return deflate(stream, Z_FINISH) == Z_STREAM_END ? stream->total_out : 0;
}

} // namespace
} // namespace KivFramework::internal

using namespace KivFramework;

std::size_t internal::deflate_text(std::string_view text, char* destination, std::size_t capacity) {
    static const thread_states states;

    if (text.size() > std::numeric_limits<uInt>::max()) {
        return 0;
    }
    if (deflate_state* const state = states_are_gone ? nullptr : states.own()) {
        return deflate_with(*state, text, destination, capacity);
    }
    deflate_state for_this_text;
    return deflate_with(for_this_text, text, destination, capacity);
}
