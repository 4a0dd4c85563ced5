// An open descriptor with one owner.
#pragma once

#include <cstdint>

/// Owns a descriptor and closes it exactly once. -1 stands for none. Not locked.
class CDescriptor {
public:
    CDescriptor() = default;
    explicit CDescriptor(int iDescriptor) : m_iDescriptor(iDescriptor) {}
    CDescriptor(CDescriptor&& other) noexcept : m_iDescriptor(other.Release()) {}
    CDescriptor& operator=(CDescriptor&& other) noexcept;
    ~CDescriptor() { Close(); }
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;

    int Get() const { return m_iDescriptor; }
    bool IsOpen() const { return m_iDescriptor != -1; }
    /// Gives the descriptor up: the caller owns it now.
    int Release();
    void Close();

    /// Binds a socket to the port of an IPv4 address (in host byte order; 0: all of the machine's); port 0 is replaced
    /// by the free one that the system chose. False, with errno set, on failure.
    bool BindToPort(int* piPort, std::uint32_t iAddress = 0) const;

    /// A new IPv4 socket of the type (SOCK_STREAM, SOCK_DGRAM), close-on-exec and never one of the three standard
    /// descriptors; empty, with errno set, on failure.
    static CDescriptor OpenSocket(int iType);
    /// Moves a descriptor off the three standard numbers (a process may run with them closed): what is printed must
    /// never go to a client. Empty, with errno set, if there is no other number to be had; the old one is closed.
    static CDescriptor AboveStandard(CDescriptor descriptor);

private:
    int m_iDescriptor = -1;
};
