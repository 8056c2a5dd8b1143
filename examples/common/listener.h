// Listening sockets of the examples.
#ifndef EXAMPLES_LISTENER_H
#define EXAMPLES_LISTENER_H

#include "common/xel_int.h"
#include "examples/common/unique_fd.h"

// Listens on the loopback address; port 0 takes any free one. Non-blocking. Throws
// std::system_error.
UniqueFd ListenOnLoopback(u32 port);

// The port of a listening socket. Throws std::system_error.
u32 PortOf(const UniqueFd& listener);

// Takes one client off the backlog, non-blocking and without delay; closed when there is none, with
// errno set.
UniqueFd AcceptClient(const UniqueFd& listener);

// Turns a client away with status 503. What it has sent so far is taken off the socket, as closing
// with unread input would reset the connection; a client that goes on sending may still see a reset
// instead of the answer. False: the client had left already.
bool TurnAway(const UniqueFd& socket);

#endif // EXAMPLES_LISTENER_H
