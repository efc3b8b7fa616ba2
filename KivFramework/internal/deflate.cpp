#include "KivFramework/internal/deflate.h"

#include <zlib.h>

#include <algorithm>
#include <limits>

namespace KivFramework::internal {
namespace {

// Outlives the state below, which has a destructor: a thread's last destructors may still compress.
constinit thread_local bool thread_state_is_gone = false;

class deflate_state {
public:
    deflate_state() = default;
    ~deflate_state() {
        end();
        thread_state_is_gone = true;
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

    void end() {
        if (ready_) {
            deflateEnd(&stream_);
            ready_ = false;
        }
    }

private:
    z_stream stream_{};
    bool ready_ = false;
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
    if (text.size() > std::numeric_limits<uInt>::max()) {
        return 0;
    }
    if (thread_state_is_gone) {
        deflate_state for_this_text;
        return deflate_with(for_this_text, text, destination, capacity);
    }
    static thread_local deflate_state state;
    return deflate_with(state, text, destination, capacity);
}
