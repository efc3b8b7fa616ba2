// kiv-console: asks a running kiv-agent.

#include "connection.h"
#include "protocol.h"
#include "text.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include <KivFramework/KivLibrary.h>

namespace {

using agent::protocol::request;

constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

constexpr const char* usage =
    R"(usage: kiv-console [--port N | --port-file FILE] COMMAND

  status                          the agent, its machine and its counters
  tree PID                        a process and everything below it
  jobs                            the jobs that can be run, and how they are
  run JOB                         run a job, show what it prints, end with its exit code
  kill JOB                        end a running job with everything it started
  get NAME                        show a property
  set NAME VALUE                  set a property
  config get SECTION KEY          show a setting of the configuration file
  config set SECTION KEY VALUE    change and save one
  tail [-f] [LINES]               the end of the log (10 lines); -f goes on with what follows
  rotate                          start a new log file now, show the name of the old one
  stop                            end the agent

The agent is looked for on port 7416 unless told otherwise; FILE is the port_file of its configuration.

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
    {{"tree"}, 1, request::tree},
    {{"jobs"}, 0, request::jobs},
    {{"run"}, 1, request::run},
    {{"kill"}, 1, request::kill},
    {{"get"}, 1, request::get},
    {{"set"}, 2, request::set},
    {{"config", "get"}, 2, request::config_get},
    {{"config", "set"}, 3, request::config_set},
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

// Takes the options off the front of `words`.
int port_from_options(std::vector<std::string>& words) {
    if (words.size() >= 2 && (words[0] == "--port" || words[0] == "--port-file")) {
        const std::string option = words[0];
        const std::string value = words[1];
        words.erase(words.begin(), words.begin() + 2);
        return option == "--port" ? number_from(value, 1, 65535) : port_from_file(value);
    }
    return agent::protocol::default_port;
}

int run(std::vector<std::string> words) {
    if (std::find(words.begin(), words.end(), "--help") != words.end()) {
        std::fputs(usage, stdout);
        return 0;
    }
    try {
        const int port = port_from_options(words);
        const question asked = question_from(words);
        agent::connection connection(port);
        return connection.ask(asked.type, asked.body, [](const std::string& text) {
            std::fwrite(text.data(), 1, text.size(), stdout);
            std::fflush(stdout); // a job's output is watched as it comes
        });
    } catch (const usage_error& problem) {
        std::fprintf(stderr, "kiv-console: %s\n%s", problem.what(), usage);
        return exit_usage;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "kiv-console: %s\n", problem.what());
        return exit_failed;
    }
}

} // namespace

int main(int argc, char** argv) {
    KivFramework::InitializeLibrary(nullptr);
    const int exit_code = run(std::vector<std::string>(argv + 1, argv + argc));
    KivFramework::ShutdownLibrary();
    return exit_code;
}
