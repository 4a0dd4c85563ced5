// One call and its reply over TCP.
#pragma once

#include <string>
#include <string_view>

/// Connects to a port on this machine; a receive on the socket waits for half a minute at most. Throws
/// std::runtime_error.
int ConnectTo(int iPort);
/// Sends everything; throws std::runtime_error.
void SendAll(int iSocket, std::string_view sBytes);
/// Receives one record, mark included; throws std::runtime_error.
std::string ReceiveRecord(int iSocket);
/// Sends one call and receives its reply.
std::string Exchange(int iSocket, const std::string& sCall);
/// Throws std::runtime_error with the text of errno.
[[noreturn]] void FailWithErrno(const std::string& sWhat);
