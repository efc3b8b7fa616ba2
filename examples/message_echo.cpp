// A server and a client in one event loop: the client sends texts, the server answers each with
// the same text, and both use one queue.
//   message_echo COUNT
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <KivFramework/KivFramework.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace KivFramework;

namespace {

// Takes every whole message; answers them with `answer`, counts them without.
int take_messages(kivSocketStream& stream, const char* answer) {
    int count = 0;
    while (char* message = stream.GetNextMessage()) {
        if (answer != nullptr) {
            stream.AddMessage(answer, message + 1); // message[0] is the type
        }
        KivSocket::destroyEncodedMessage(message);
        ++count;
    }
    return count;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s COUNT\n", argv[0]);
        return 2;
    }
    const int wanted = std::atoi(argv[1]);

    InitializeLibrary(nullptr);
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == -1) {
        std::perror("socketpair");
        return 1;
    }
    const int queue = kqueue();
    kivSocketStream client;
    kivSocketStream server;
    kivSocketStream* const streams[] = {&client, &server};
    for (int side = 0; side < 2; ++side) {
        errno = 0; // an old EBADF would make the next call fail
        KivSocket::SetBlockStatus(ends[side], /*blocking=*/false);
        streams[side]->socket = ends[side];
        streams[side]->RegisterKq(queue); // events carry the stream's address
    }
    for (int number = 0; number < wanted; ++number) {
        client.AddMessage("Q", ("question " + std::to_string(number)).c_str());
    }

    int answered = 0;
    while (answered < wanted) {
        struct kevent event;
        if (kevent(queue, nullptr, 0, &event, 1, nullptr) != 1) {
            continue; // interrupted by a signal
        }
        auto* stream = static_cast<kivSocketStream*>(event.udata);
        if (event.filter == EVFILT_WRITE) {
            stream->Write();
            continue;
        }
        if (stream->Read() == 0) {
            std::fprintf(stderr, "the other side is gone\n");
            break;
        }
        stream->UpdateHeartBeat();
        if (stream == &server) {
            take_messages(server, "A");
        } else {
            answered += take_messages(client, nullptr);
        }
    }
    std::printf("%d answers\n", answered);

    client.Close();
    server.Close();
    close(queue);
    ShutdownLibrary();
    return answered == wanted ? 0 : 1;
}
