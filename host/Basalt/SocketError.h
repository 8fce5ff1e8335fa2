// Why opening a socket failed, in the words a user reads. Thread-safe.
#pragma once

#include <QString>

namespace Basalt {

// What TCPSocket::openError and TCPServerSocket::openError report: the system's error
// number (errno) of the failed step, HostNotFound when the name did not resolve, 0 when
// the last open succeeded or none was made.
constexpr int HostNotFound = -1;

// A few lower-case words: "host not found", "connection refused", "address already
// in use"...
QString socketErrorText(int error);

} // namespace Basalt
