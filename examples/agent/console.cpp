// kiv-console: asks a running kiv-agent.

#include "connection.h"
#include "protocol.h"
#include "standard_descriptors.h"
#include "terminal.h"
#include "text.h"
#include "top.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include <KivFramework/KivLibrary.h>
#include <fcntl.h>

namespace {

using agent::protocol::request;

constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

constexpr const char* usage =
    R"(usage: kiv-console [--port N | --port-file FILE] COMMAND

  status                          the agent, its machine and its counters
  top                             the same with bars and the jobs, once a second until q is typed;
                                  once only when the output is not a terminal
  tree PID                        a process and everything below it
  jobs                            the jobs that can be run, and how they are
  run JOB                         run a job, show what it prints, end with its exit code
  kill JOB                        end a running job with everything it started
  get NAME                        show a property
  set NAME VALUE                  set a property
  properties                      all properties in their order: c set by a console, t text
  config get SECTION KEY          show a setting of the configuration file
  config set SECTION KEY VALUE    change and save one
  tail [-f] [LINES]               the end of the log (10 lines); -f goes on with what follows
  md5 FILE                        the MD5 digest of a file, in the form of md5sum
  cat FILE                        a file, byte for byte
  rotate                          start a new log file now, show the name of the old one
  stop                            end the agent

  --port N           where the agent listens, 7416 unless told otherwise
  --port-file FILE   reads N from the port_file of the agent's configuration
  --help             show this text, and end
  --version          show the version, and end

The FILE of md5 and cat is a path below the directory in [files] of the agent's configuration. top
uses no colours when NO_COLOR is set, and treats a terminal whose TERM is "dumb" as none.

Exit codes: 0 done, 1 the agent refused, is not there or went away, 2 usage. After run: the job's own
exit code, or 128 plus the number of the signal that ended it.
)";

static_assert(agent::protocol::default_port == 7416, "the usage text says so too");

class usage_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct question {
    request type;
    std::string body;
};

// A command whose arguments travel as the lines of the body, in their order.
struct plain_command {
    std::vector<std::string> words;
    std::size_t argument_count;
    request type;
};

const std::vector<plain_command> plain_commands = {
    {{"status"}, 0, request::status},
    {{"top"}, 0, request::view},
    {{"tree"}, 1, request::tree},
    {{"jobs"}, 0, request::jobs},
    {{"run"}, 1, request::run},
    {{"kill"}, 1, request::kill},
    {{"get"}, 1, request::get},
    {{"set"}, 2, request::set},
    {{"config", "get"}, 2, request::config_get},
    {{"config", "set"}, 3, request::config_set},
    {{"properties"}, 0, request::properties},
    {{"md5"}, 1, request::md5},
    {{"cat"}, 1, request::cat},
    {{"rotate"}, 0, request::rotate},
    {{"stop"}, 0, request::stop},
};

int number_from(const std::string& text, int lowest, int highest) {
    int number = 0;
    if (!agent::parse_number(text, lowest, highest, number)) {
        throw usage_error("'" + text + "' is not a number from " + std::to_string(lowest) + " to " +
                          std::to_string(highest));
    }
    return number;
}

question tail_question(const std::vector<std::string>& words) {
    std::vector<std::string> arguments(words.begin() + 1, words.end());
    const auto flag = std::find(arguments.begin(), arguments.end(), "-f");
    const bool follow = flag != arguments.end();
    if (follow) {
        arguments.erase(flag);
    }
    if (arguments.size() > 1) {
        throw usage_error("tail takes -f and a number of lines");
    }
    const std::string lines = arguments.empty() ? "10" : arguments[0];
    number_from(lines, 1, 1000000);
    return {follow ? request::follow : request::tail, lines};
}

question question_from(const std::vector<std::string>& words) {
    if (words.empty()) {
        throw usage_error("a command is missing");
    }
    if (words[0] == "tail") {
        return tail_question(words);
    }
    for (const plain_command& command : plain_commands) {
        const std::size_t length = command.words.size();
        if (words.size() < length ||
            !std::equal(command.words.begin(), command.words.end(), words.begin())) {
            continue;
        }
        if (words.size() != length + command.argument_count) {
            throw usage_error("'" + words[0] + "' takes another number of arguments");
        }
        std::string body;
        for (std::size_t i = length; i < words.size(); ++i) {
            const bool is_last = i + 1 == words.size();
            if (!is_last && words[i].find('\n') != std::string::npos) {
                throw usage_error("a name cannot have a line feed");
            }
            body += words[i] + (is_last ? "" : "\n");
        }
        if (body.size() > agent::protocol::longest_request) {
            throw usage_error("the arguments are too long");
        }
        return {command.type, body};
    }
    throw usage_error("what is '" + words[0] + "'?");
}

int port_from_file(const std::string& path) {
    std::ifstream stream(path);
    std::string text;
    if (!std::getline(stream, text)) {
        throw agent::console_error("no agent has written its port to " + path);
    }
    return number_from(text, 1, 65535);
}

// Takes the option that names the agent, and its value, off the front of `words`.
std::vector<std::string> take_options(std::vector<std::string>& words) {
    std::vector<std::string> option;
    if (words.size() >= 2 && (words[0] == "--port" || words[0] == "--port-file")) {
        option.assign(words.begin(), words.begin() + 2);
        words.erase(words.begin(), words.begin() + 2);
    }
    return option;
}

int port_from(const std::vector<std::string>& option) {
    if (option.empty()) {
        return agent::protocol::default_port;
    }
    return option[0] == "--port" ? number_from(option[1], 1, 65535) : port_from_file(option[1]);
}

// A job's output is watched as it comes, so nothing stays in a buffer; and what cannot be written,
// on a full disk say, is not passed over.
void print(const std::string& text) {
    if (!agent::write_output(text)) {
        throw agent::console_error("the output cannot be written: " + agent::error_text(errno));
    }
}

struct outcome {
    int exit_code = 0;
    int signal = 0; // that ended the command, to be raised again
};

outcome run(std::vector<std::string> words) {
    const std::vector<std::string> option = take_options(words);
    const std::string first_word = words.empty() ? "" : words[0];
    try {
        if (first_word == "--help") {
            print(usage);
            return {};
        }
        if (first_word == "--version") {
            print("kiv-console " KIV_AGENT_VERSION "\n");
            return {};
        }
        const int port = port_from(option);
        const question asked = question_from(words);
        agent::connection connection(port);
        if (asked.type == request::view) {
            return {0, agent::watch_agent(connection, print)};
        }
        return {connection.ask(asked.type, asked.body, print)};
    } catch (const usage_error& problem) {
        std::fprintf(stderr, "kiv-console: %s\n%s", problem.what(), usage);
        return {exit_usage};
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "kiv-console: %s\n", problem.what());
        return {exit_failed};
    }
}

} // namespace

int main(int argc, char** argv) {
    agent::fill_standard_descriptors(O_RDONLY); // an answer that nobody can see is an error
    KivFramework::InitializeLibrary(nullptr);
    const outcome result = run(std::vector<std::string>(argv + 1, argv + argc));
    KivFramework::ShutdownLibrary();
    if (result.signal != 0) {
        ::raise(result.signal); // so that a shell knows why it ended
    }
    return result.exit_code;
}
