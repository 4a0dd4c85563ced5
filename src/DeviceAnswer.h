// CDeviceAnswer: the last answer to a question about a file system.
#pragma once

#include <ctime>
#include <optional>

#include <sys/types.h>

/// Keeps the last answer to a question that asks the kernel about the file system on a device. Calls mostly stay on
/// one, so the answer holds for the next one on the same device within the second.
///
/// Not locked: one for each thread.
class CDeviceAnswer {
public:
    /// The answer, if one for the device was kept in this second.
    std::optional<unsigned long long> Find(dev_t iDevice) {
        const std::time_t iNow = std::time(nullptr);
        if (m_iTime != iNow || m_iDevice != iDevice) {
            m_iAsked = iNow;
            return std::nullopt;
        }
        return m_iAnswer;
    }
    /// Keeps the answer to what has just not been found. It counts from then on.
    void Keep(dev_t iDevice, unsigned long long iAnswer) {
        m_iTime = m_iAsked;
        m_iDevice = iDevice;
        m_iAnswer = iAnswer;
    }

private:
    std::time_t m_iTime = 0;
    dev_t m_iDevice = 0;
    unsigned long long m_iAnswer = 0;
    std::time_t m_iAsked = 0;  ///< when an answer was looked for last in vain
};
