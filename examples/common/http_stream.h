// An HTTP session on a non-blocking socket: bounded reads and writes between the two. Owned by a
// connection, used on its thread; no locks.
#ifndef EXAMPLES_HTTP_STREAM_H
#define EXAMPLES_HTTP_STREAM_H

#include "examples/common/http_session.h"
#include "examples/common/unique_fd.h"

// What became of one step: nothing to do for now, bytes went through, or the client is gone.
enum class StreamStep : u8 { Idle, Moved, Broken };

class HttpStream
{
public:
    explicit HttpStream(UniqueFd socket) : socket_(std::move(socket)) {}

    int Fd() const { return socket_.Get(); }
    HttpSession& Session() { return session_; }

    // Phase Receiving: one read, handed to the session.
    StreamStep Receive();
    // Phase Sending: sends until the response is out, the budget is used up or the socket is full.
    StreamStep Send(size_t& budget);

    // Closing a socket with unread input resets it, and the reset may overtake the last response.
    // So our side is shut first, and what still arrives is thrown away until the client closes.
    // False: there is nothing to wait for.
    bool StartLinger();
    bool IsLingering() const { return lingering_; }
    // Lingering: one read. False: the client has closed, or sends too much.
    bool Discard();

    // What a client does not read stays in the kernel after a close; a reset drops it.
    void ResetOnClose() const;
    // The socket becomes readable, with the end of input behind what has arrived.
    void EndInput() const;
    // The same for both directions: whatever runs next on it ends.
    void EndAll() const;

private:
    UniqueFd socket_;
    HttpSession session_;
    bool lingering_ = false;
    size_t discarded_ = 0;
};

#endif // EXAMPLES_HTTP_STREAM_H
