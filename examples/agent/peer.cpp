#include "peer.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include <KivFramework/KivProcesses.h>

using namespace KivFramework;

namespace {

// What a peer may leave unread before it is dropped. The largest single answer fits, twice.
constexpr unsigned long most_unsent = 4UL * 1024 * 1024;

// What a peer may leave unread before jobs, files and the log wait for it.
constexpr unsigned int enough_unsent = 256U * 1024;

// Longer answers are sent in parts, which the other side prints one after the other.
constexpr std::size_t longest_part = agent::protocol::longest_reply / 2;

} // namespace

agent::traffic::traffic() : mutex(KivProcesses::CreateMutex()) {}

agent::traffic::~traffic() {
    KivProcesses::DestroyMutex(mutex);
}

agent::peer::peer(int socket, std::string address, const event_loop& loop, traffic& shared)
    : address_(std::move(address)), traffic_(shared) {
    stream_.socket = socket;
    stream_.SetMaxOutgoingBufferSize(most_unsent);
    stream_.RegisterCounters(&traffic_.bytes_sent, &traffic_.bytes_received, &traffic_.mutex);
    stream_.RegisterKq(loop.descriptor());
}

agent::peer::~peer() {
    errno = 0; // the close gives up, and leaks, when an old EBADF is still standing there
    stream_.Close();
}

void agent::peer::receive() {
    if (has_questions_) {
        return; // so the buffer stays within its limit; the bytes wait in the socket
    }
    if (stream_.Read() != 0) {
        has_questions_ = true;
        return;
    }
    // The stream closes itself when a limit is passed; otherwise the other side ended it.
    if (stream_.closed != 0) {
        fail("sends more than the buffer holds");
    } else {
        leave("connection closed");
    }
}

void agent::peer::send() {
    if (stream_.Write() == 0) {
        leave("connection lost");
    }
}

bool agent::peer::next_question(protocol::request& type, std::string& body) {
    while (!failed()) {
        incoming message = take_message(stream_, protocol::longest_request);
        if (message.what == incoming::kind::nothing) {
            has_questions_ = false;
            return false;
        }
        if (message.what == incoming::kind::malformed) {
            fail("malformed: " + message.text);
            return false;
        }
        // Only whole messages count: bytes that trickle in and never form one are silence.
        stream_.UpdateHeartBeat();
        type = static_cast<protocol::request>(message.type);
        if (type == protocol::request::heart_beat) {
            queue(protocol::reply::heart_beat, {});
            continue;
        }
        if (answer_open_) {
            fail("malformed: a question before the end of the last answer");
            return false;
        }
        ++traffic_.questions;
        body = std::move(message.text);
        return true;
    }
    return false;
}

void agent::peer::answer(const std::string& text) {
    for (std::size_t start = 0; start < text.size(); start += longest_part) {
        queue(protocol::reply::text, text.substr(start, longest_part));
    }
}

void agent::peer::answer_done(const std::string& exit_code) {
    answer_open_ = false;
    queue(protocol::reply::done, exit_code);
}

void agent::peer::answer_failed(const std::string& why) {
    answer_open_ = false;
    queue(protocol::reply::failed, why);
}

void agent::peer::fail(const std::string& reason) {
    if (failure_.empty()) {
        failure_ = reason;
    }
}

void agent::peer::leave(const std::string& how) {
    left_ = !failed();
    fail(how);
}

void agent::peer::check_silence(int seconds) {
    if (!stream_.CheckHeartBeat(seconds)) {
        fail("silent for more than " + std::to_string(seconds) + " seconds");
    }
}

void agent::peer::follow(std::unique_ptr<log_follower> follower) {
    keep_answer_open();
    follower_ = std::move(follower);
}

void agent::peer::pass_on_log() {
    while (!failed() && keeps_up()) {
        const std::string lines = follower_->new_lines();
        if (lines.empty()) {
            return;
        }
        answer(lines);
    }
}

void agent::peer::begin_file(file_answer answer) {
    keep_answer_open();
    file_ = std::make_unique<file_answer>(std::move(answer));
}

void agent::peer::pass_on_file() {
    try {
        const std::string part = file_->advance();
        if (file_->wanted() == file_answer::kind::digest) {
            answer(part);
        } else if (!part.empty()) {
            queue(protocol::reply::base64, part);
        }
        if (!file_->at_end()) {
            return;
        }
        answer_done();
    } catch (const std::exception& problem) {
        answer_failed(problem.what()); // a file that cannot be read on, or no memory for a piece
    }
    file_.reset();
}

void agent::peer::on_output(const std::string& lines) {
    answer(lines);
}

void agent::peer::on_end(const std::string& job_name, const std::string& outcome, int exit_code) {
    answer("job " + job_name + " " + outcome + "\n");
    answer_done(std::to_string(exit_code));
}

bool agent::peer::keeps_up() const {
    return stream_.outUsed < enough_unsent;
}

void agent::peer::queue(protocol::reply type, const std::string& body) {
    // The stream takes C strings; a zero byte that a job printed would end the text early.
    std::string text = body;
    std::replace(text.begin(), text.end(), '\0', '?');
    if (!failed() && !send_message(stream_, type, text)) {
        fail("leaves too much unread");
    }
}
