// A host that keeps what the library tells it and answers as told, on a fake virtual machine.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FakeJvm.h"
#include "LogCapture.h"

class CCallback;

/// Give Callback() to a controller. Log lines and notifications are kept in the order in which they came; a
/// Notification's sIpcID stays empty. Any thread may ask; it outlives the callback's users.
class FakeHost {
public:
    FakeHost();
    ~FakeHost();
    FakeHost(const FakeHost&) = delete;
    FakeHost& operator=(const FakeHost&) = delete;

    std::shared_ptr<CCallback> Callback() { return m_pCallback; }
    /// Lines and notifications; SetHost decides the answers (-1 without it).
    LogCapture& Log() { return m_Log; }

private:
    HostMethods MakeMethods();

    LogCapture m_Log;
    FakeJvm m_Jvm;
    std::shared_ptr<CCallback> m_pCallback;
};
