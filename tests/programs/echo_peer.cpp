// Connects to a loopback port and sends every message it receives back, driven by a queue as a host
// would, until a message of type "q" has been answered. Exit code 0 only if all went well.
//
// usage: echo_peer PORT

#include "KivFramework/KivFramework.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <unistd.h>

namespace {

using namespace KivFramework;
using namespace KivFramework::KivSocket;

int fail(const char* what) {
    std::perror(what);
    return EXIT_FAILURE;
}

// Answers what has arrived; true once the last message was among it.
bool answer_messages(kivSocketStream& stream) {
    bool last = false;
    while (char* const message = stream.GetNextMessage()) {
        const char type[2] = {message[0], 0};
        last = message[0] == 'q';
        stream.AddMessage(type, message + 1);
        destroyEncodedMessage(message);
    }
    return last;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: echo_peer PORT\n", stderr);
        return EXIT_FAILURE;
    }
    kivSocketStream stream;
    stream.socket = CreateSocket(0);
    const int port = static_cast<int>(std::strtol(argv[1], nullptr, 10));
    if (!ConnectSocket(stream.socket, "127.0.0.1", port) ||
        !SetBlockStatus(stream.socket, /*blocking=*/false) ||
        !SetNagleStatus(stream.socket, /*enabled=*/false)) {
        return fail("connect");
    }
    const int queue = kqueue();
    if (queue == -1) {
        return fail("kqueue");
    }
    stream.SetBufferCheck(false); // the other side decides when it reads
    stream.RegisterKq(queue);

    bool asked_to_end = false;
    while (!asked_to_end || stream.HasToWrite()) {
        struct kevent event {};
        const int count = kevent(queue, nullptr, 0, &event, 1, nullptr);
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count != 1 || event.udata != &stream) {
            return fail("kevent");
        }
        const int result = event.filter == EVFILT_WRITE ? stream.Write() : stream.Read();
        if (result == 0) {
            return fail("the connection ended");
        }
        asked_to_end = answer_messages(stream) || asked_to_end;
    }
    stream.Close();
    ::close(queue);
    return EXIT_SUCCESS;
}
