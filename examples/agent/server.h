/// \file
/// The agent itself: its loop, its peers and the answers to their questions.
#pragma once

#include "agent_log.h"
#include "clock_watch.h"
#include "configuration.h"
#include "event_loop.h"
#include "files.h"
#include "instance.h"
#include "jobs.h"
#include "machine.h"
#include "peer.h"
#include "protocol.h"
#include "signals.h"

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include <KivFramework/KivPropertyMap.h>

namespace agent {

/// Holds back the signals that end the agent, or lets them through. A server lets them through once
/// it can handle them; threads started before go on holding them back.
void block_ending_signals(bool block);

/// Serves consoles until it is told to stop.
class server {
public:
    /// Everything here was set up before and outlives the server. Make the server after becoming a
    /// daemon: its queue, its pipe and its threads belong to the process that made them.
    server(configuration& config, agent_log& log, const listener& entrance, const file_area& files);
    ~server();
    server(const server&) = delete;
    server& operator=(const server&) = delete;

    /// Returns after a `stop` or one of SIGTERM, SIGINT and SIGHUP, with all jobs ended and what
    /// was answered sent.
    void run();

private:
    using clock = std::chrono::steady_clock;

    void publish_properties();
    void on_signals();
    void accept_waiting();
    void admit(int socket, const std::string& address);
    void pause_accepting();
    void on_peer_ready(peer& ready, readiness what);
    void give_turns();
    void pass_on_files();
    bool reads_on(const peer& reader) const;
    bool has_work() const;
    void drop(int socket);
    void drop_failed();
    void keep_house();
    void check_silence();
    void stop(const std::string& reason);
    bool has_output_pending() const;
    long uptime_seconds() const;

    void answer(peer& asker, protocol::request type, const std::string& body);
    void answer_status(peer& asker, const std::string& body);
    void answer_view(peer& asker, const std::string& body);
    void answer_tree(peer& asker, const std::string& pid);
    void answer_jobs(peer& asker, const std::string& body);
    void answer_run(peer& asker, const std::string& name);
    void answer_kill(peer& asker, const std::string& name);
    void answer_get(peer& asker, const std::string& name);
    void answer_set(peer& asker, const std::string& body);
    void answer_properties(peer& asker, const std::string& body);
    void answer_config_get(peer& asker, const std::string& body);
    void answer_config_set(peer& asker, const std::string& body);
    void answer_tail(peer& asker, const std::string& count);
    void answer_follow(peer& asker, const std::string& count);
    void answer_md5(peer& asker, const std::string& path);
    void answer_cat(peer& asker, const std::string& path);
    void answer_rotate(peer& asker, const std::string& body);
    void answer_stop(peer& asker, const std::string& body);

    configuration& config_;
    agent_log& log_;
    const listener& entrance_;
    const file_area& files_;
    machine machine_;
    signal_watch signals_;
    event_loop loop_;
    traffic traffic_;
    std::map<int, std::unique_ptr<peer>> peers_; ///< by socket
    job_table jobs_;                             ///< after the peers, which listen to it
    KivFramework::kivPropertyMap properties_;
    int last_file_reader_ = -1; ///< the socket of the peer that had a piece of its file last
    clock::time_point start_ = clock::now();
    clock::time_point next_housekeeping_ = start_;
    clock_watch clock_watch_;
    bool accepting_ = true;
    bool stopping_ = false;
};

} // namespace agent
