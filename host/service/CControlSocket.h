#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "base/CDescriptor.h"
#include "host/service/CControlFile.h"

// The connections by which clients have this host launch and stop programs, over the socket
// files/control. A client sends one line and gets one, after which the connection is closed;
// docs/control.md has the rules. No client is waited for, and none can keep more than a line of
// vxsched::cLongestMessage; a request is carried out before the next one is read. For the main thread.
class CControlSocket {
public:
    // Who has sent a line.
    struct TSender {
        uid_t user = 0;
        int passed = -1;  // a descriptor that came with it, and stays the socket's; -1: none
    };

    // Returns the answer to the line of a client, with its line break; the line comes without one.
    using TAnswer = std::function<std::string(std::string_view line, const TSender& sender)>;

    // Makes the socket. Clients are refused until Listen(), and then do without the host. If the
    // socket cannot be made, Serve() tries again each second. At the end, clients whose request was
    // not read notice that.
    explicit CControlSocket(TAnswer answerLine);
    ~CControlSocket() = default;
    CControlSocket(const CControlSocket&) = delete;
    CControlSocket& operator=(const CControlSocket&) = delete;

    void Listen();

    // Readable when Serve() should be called.
    int Descriptor() const { return events.Get(); }

    // Accepts clients, reads what they have sent, and answers. A client that has gone gets no
    // answer, and its request is not carried out. Makes the socket again if its file is gone or
    // replaced.
    void Serve();

private:
    struct TConnection {
        CDescriptor socket;
        uid_t user = 0;
        CDescriptor passed;
        std::string received = {};
    };
    // By the order in which they came. A descriptor is used again, such a number is not.
    using TConnections = std::map<std::uint64_t, TConnection>;

    void UseFile() const;
    void StartListening() const;
    void AcceptAll();
    void Add(CDescriptor socket);
    bool TurnAway();
    void CloseOldest();
    void OnReadable(TConnections::iterator connection, bool isClosed);
    bool Register(int socket, std::uint64_t number, std::uint32_t which) const;

    const TAnswer answer;
    const CDescriptor events;
    CControlFile file;
    CDescriptor spare;
    bool isListening = false;
    bool isRefusalLogged = false;
    bool isFailureLogged = false;
    std::uint64_t lastNumber = 2;  // after those of the listener, the watch and the timer
    TConnections connections;
};
