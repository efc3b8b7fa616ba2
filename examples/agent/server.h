/// \file
/// The agent itself: its loop, its peers and the answers to their questions.
#pragma once

#include "agent_log.h"
#include "configuration.h"
#include "event_loop.h"
#include "instance.h"
#include "jobs.h"
#include "peer.h"
#include "protocol.h"

#include <chrono>
#include <map>
#include <memory>
#include <string>

namespace agent {

/// Holds back the signals that end the agent, or lets them through. A server lets them through once
/// it can handle them; threads started before go on holding them back.
void block_ending_signals(bool block);

/// Serves consoles until it is told to stop.
class server {
public:
    /// Everything here was set up before and outlives the server. Make the server after becoming a
    /// daemon: its queue and its pipe belong to the process that made them.
    server(configuration& config, agent_log& log, const listener& entrance);
    ~server();
    server(const server&) = delete;
    server& operator=(const server&) = delete;

    /// Returns after a `stop` or one of SIGTERM, SIGINT and SIGHUP, with all jobs ended and what
    /// was answered sent.
    void run();

private:
    using clock = std::chrono::steady_clock;

    void watch_signals();
    void on_signals();
    void accept_waiting();
    void admit(int socket, const std::string& address);
    void pause_accepting();
    void on_peer_ready(peer& ready, readiness what);
    void drop(int socket);
    void drop_failed();
    void keep_house();
    void stop(const std::string& reason);
    bool has_output_pending() const;

    void answer(peer& asker, protocol::request type, const std::string& body);
    void answer_status(peer& asker, const std::string& body);
    void answer_tree(peer& asker, const std::string& pid);
    void answer_jobs(peer& asker, const std::string& body);
    void answer_run(peer& asker, const std::string& name);
    void answer_kill(peer& asker, const std::string& name);
    void answer_get(peer& asker, const std::string& name);
    void answer_set(peer& asker, const std::string& body);
    void answer_config_get(peer& asker, const std::string& body);
    void answer_config_set(peer& asker, const std::string& body);
    void answer_tail(peer& asker, const std::string& count);
    void answer_follow(peer& asker, const std::string& count);
    void answer_rotate(peer& asker, const std::string& body);
    void answer_stop(peer& asker, const std::string& body);

    configuration& config_;
    agent_log& log_;
    const listener& entrance_;
    event_loop loop_;
    traffic traffic_;
    std::map<int, std::unique_ptr<peer>> peers_; ///< by socket
    job_table jobs_;                             ///< after the peers, which listen to it
    std::map<std::string, std::string> properties_;
    clock::time_point start_ = clock::now();
    clock::time_point next_housekeeping_ = start_;
    bool accepting_ = true;
    bool stopping_ = false;
};

} // namespace agent
