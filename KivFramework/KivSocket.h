/// \file
/// Sockets: IPv4 primitives, the message frame and the buffered message stream.
#pragma once

#include "KivFramework/KivExport.h"

#include <ctime>
#include <string>

#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace KivFramework {
namespace KivSocket {

KIV_API int CreateSocket(int kind);
KIV_API bool BindBroadcastSocket(int socket, int port);
KIV_API bool SendbroadcastSocket(int socket, int port, char* data, int length);
KIV_API bool ConnectSocket(int socket, std::string address, int port);
KIV_API bool ListenSocket(int socket);
KIV_API int AcceptSocket(int socket, sockaddr* address, unsigned int* length);
KIV_API int SelectSocket(int count, fd_set* read, fd_set* write, fd_set* error, timeval* timeout);
KIV_API bool SetBlockStatus(int socket, bool blocking);
KIV_API bool SetNagleStatus(int socket, bool enabled);
KIV_API int SockAtMark(int socket);
KIV_API int CloseSocket(int socket);
KIV_API int CreateLoopbackPipes(int* descriptors);

KIV_API void encodeMessage(const char* type, const char* body, char** frame,
                           unsigned long* payload_length, unsigned long* frame_length);
KIV_API void destroyEncodedMessage(char* buffer);

KIV_API char* kiv_resize_buffer(char* buffer, unsigned long* size, unsigned long used,
                                unsigned long new_size);

class KIV_API kivSocketStream {
public:
    kivSocketStream();
    ~kivSocketStream();
    kivSocketStream(const kivSocketStream&) = delete;
    kivSocketStream& operator=(const kivSocketStream&) = delete;

    void RegisterKq(int kqueue_descriptor);
    void RegisterCounters(long long* sent, long long* received, pthread_mutex_t** lock);
    bool AddMessage(const char* type, const char* body);
    int Read();
    int Write();
    char* GetNextMessage();
    char GetFirstByte();
    void ClearBuffers();
    void GetBuffersUsage(double& incoming, double& outgoing);
    bool HasToWrite();
    void UpdateHeartBeat();
    bool CheckHeartBeat(int seconds);
    void SetMaxIncomingBufferSize(unsigned long size);
    void SetMaxOutgoingBufferSize(unsigned long size);
    void SetBufferCheck(bool enabled);
    void Shutdown();
    void Close();

    char* outBuffer;
    char* inBuffer;
    unsigned int inUsed;
    unsigned int outUsed;
    unsigned int inSize;
    unsigned int outSize;
    pthread_mutex_t* mutex;
    std::time_t lastHeartBeat;
    unsigned int maxInSize;
    unsigned int maxOutSize;
    int bufferCheck;
    long long* sentCounter;
    long long* receivedCounter;
    pthread_mutex_t** countersMutex;
    int kq;
    int shutdownByUs;
    int closed;
    int socket;

private:
    void* internal_state_;
};

} // namespace KivSocket

using KivSocket::kivSocketStream;

} // namespace KivFramework
