/// \file
/// One console connected to the agent.
#pragma once

#include "agent_log.h"
#include "event_loop.h"
#include "files.h"
#include "jobs.h"
#include "messages.h"
#include "protocol.h"

#include <memory>
#include <string>

#include <KivFramework/KivSocket.h>

namespace agent {

/// What all peers together did; the bytes are counted by their streams, under the mutex.
struct traffic {
    traffic();
    ~traffic();
    traffic(const traffic&) = delete;
    traffic& operator=(const traffic&) = delete;

    long long bytes_sent = 0;
    long long bytes_received = 0;
    pthread_mutex_t* mutex;
    long long questions = 0;
};

/// The connection, its stream and what it is in the middle of.
///
/// A peer that misbehaves or goes away is marked with `fail` and left alone; the agent drops the
/// marked ones between two rounds of its loop, when nobody is inside them.
class peer : public job_listener {
public:
    /// Takes over a connected socket and registers it with the loop's queue.
    peer(int socket, std::string address, const event_loop& loop, traffic& shared);
    ~peer() override;
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;

    const std::string& address() const { return address_; }

    /// Receives once, unless questions are waiting. They are taken with `next_question`.
    void receive();

    /// Whether there may be questions to take.
    bool has_questions() const { return has_questions_ && !failed(); }

    /// Sends what is due.
    void send();

    /// Takes the next question; heart-beats are answered on the way.
    ///
    /// \returns false when there is no more; the peer may have failed.
    bool next_question(protocol::request& type, std::string& body);

    void answer(const std::string& text);
    void answer_done(const std::string& exit_code = {});
    void answer_failed(const std::string& why);

    /// The answer under way stays open: only heart-beats may come until `answer_done`.
    void keep_answer_open() { answer_open_ = true; }

    /// Marks the connection as over, with the reason for the log. The first reason stays.
    void fail(const std::string& reason);
    bool failed() const { return !failure_.empty(); }

    /// Whether it is over because the other side ended it.
    bool left() const { return left_; }
    const std::string& failure() const { return failure_; }

    /// Fails the peer when it has been silent for longer than `seconds`.
    void check_silence(int seconds);

    /// Counts the silence from now.
    void forgive_silence() { stream_.UpdateHeartBeat(); }

    bool has_output_pending() { return stream_.HasToWrite(); }

    /// Passes on what was appended to the log, as far as the console keeps up.
    void follow(std::unique_ptr<log_follower> follower);
    bool follows_log() const { return follower_ != nullptr; }
    void pass_on_log();

    /// Answers from a file: `pass_on_file` goes on until the answer is complete.
    void begin_file(file_answer answer);

    /// Whether a piece of a file can be sent now.
    bool can_pass_on_file() const { return file_ != nullptr && !failed() && keeps_up(); }
    void pass_on_file();

    void on_output(const std::string& lines) override;
    void on_end(const std::string& job_name, const std::string& outcome, int exit_code) override;
    bool keeps_up() const override;

private:
    void leave(const std::string& how);
    void queue(protocol::reply type, const std::string& body);

    KivFramework::kivSocketStream stream_;
    std::string address_;
    std::string failure_;
    bool left_ = false;
    traffic& traffic_;
    bool has_questions_ = false;
    bool answer_open_ = false;
    std::unique_ptr<file_answer> file_;
    std::unique_ptr<log_follower> follower_;
};

} // namespace agent
