/// \file
/// Sending and taking messages over a library stream whose peer is not to be trusted.
#pragma once

#include <cstddef>
#include <string>

#include <KivFramework/KivSocket.h>

namespace agent {

/// What `take_message` found at the front of a stream's incoming buffer.
struct incoming {
    enum class kind { nothing, message, malformed };

    kind what = kind::nothing;
    char type = 0;    ///< of a message
    std::string text; ///< the body of a message, or what is wrong with the bytes
};

/// Takes the next whole message, after looking at its frame.
///
/// The library's decoder believes what a frame says about its lengths. This one is for peers that
/// may send anything: a frame of unknown encoding, longer than `longest_body` or that would unpack
/// to more than that, is refused before a byte of it is waited for or memory is set aside.
///
/// After `malformed` the stream holds no message boundary any more: close it.
incoming take_message(KivFramework::kivSocketStream& stream, std::size_t longest_body);

/// Queues one message.
///
/// \param type  an enumerator of `protocol::request` or `protocol::reply`.
/// \returns false when the stream is closed, or was just closed because the peer lets more unread
///          output pile up than the stream may hold.
template <typename type_byte>
bool send_message(KivFramework::kivSocketStream& stream, type_byte type, const std::string& body) {
    const char type_text[] = {static_cast<char>(type), '\0'};
    return stream.AddMessage(type_text, body.c_str());
}

/// Sets a descriptor to close-on-exec, so that no job inherits it.
void keep_from_children(int descriptor);

} // namespace agent
