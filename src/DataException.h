// What a decoder throws when the input runs short.
#pragma once

#include <stdexcept>

/// Fewer bytes are left in an input stream than a decoder asked for. Caught where the program's frame catches it.
class CDataTruncatedExpt : public std::runtime_error {
public:
    /// The text carries the shortfall: wanted minus available bytes.
    CDataTruncatedExpt(unsigned int iWanted, unsigned int iAvailable);

    const char* what() const noexcept override { return m_cMessage; }

private:
    char m_cMessage[255];
};
