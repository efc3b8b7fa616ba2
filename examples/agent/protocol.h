/// \file
/// What kiv-agent and kiv-console say to each other.
///
/// Both sides speak in messages of the library's stream: one type byte and a body of UTF-8 text.
/// The console asks, the agent answers every question with any number of `text` messages and then
/// exactly one `done` or `failed`. Questions may follow each other without waiting, except after
/// one whose answer stays open (`run`, `follow`, `md5`, `cat`): until its `done` only heart-beats
/// may come. The arguments of a question are the lines of its body, in the order given below.
#pragma once

#include <cstddef>

namespace agent::protocol {

enum class request : char {
    heart_beat = 'h', ///< nothing; answered with reply::heart_beat alone
    status = 's',     ///< nothing
    view = 'v',       ///< nothing; the answer is a snapshot in its form on the wire
    tree = 't',       ///< pid
    jobs = 'j',       ///< nothing
    run = 'r',        ///< job name; the answer stays open until the job ends
    kill = 'k',       ///< job name
    get = 'g',        ///< property name
    set = 'p',        ///< property name, then its value, which may have lines of its own
    properties = 'a', ///< nothing
    config_get = 'c', ///< section, key
    config_set = 'C', ///< section, key, value
    tail = 'l',       ///< number of lines
    follow = 'f',     ///< number of lines; the answer stays open until the console goes away
    rotate = 'o',     ///< nothing
    md5 = 'm',        ///< path of a file; the answer may take its time
    cat = 'b',        ///< path of a file; the answer may take its time, and is in Base64
    stop = 'q'        ///< nothing
};

enum class reply : char {
    heart_beat = 'H', ///< no body
    text = 'T',       ///< part of the answer, to be printed as it stands
    base64 = 'B',     ///< part of the answer, to be decoded and then printed as it stands
    done = 'D',       ///< the answer is complete; a body is the exit code the console ends with
    failed = 'F'      ///< the question failed; the body says why
};

/// The port of an agent whose configuration names none, and the one a console tries.
constexpr int default_port = 7416;

/// How often a console that waits lets the agent know that it is still there.
constexpr int heart_beat_seconds = 1;

/// The longest body of a question. Anything longer is not a question and ends the connection.
constexpr std::size_t longest_request = 64UL * 1024;

/// The longest body of an answer's message.
constexpr std::size_t longest_reply = 2UL * 1024 * 1024;

} // namespace agent::protocol
