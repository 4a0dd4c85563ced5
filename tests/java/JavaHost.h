// A Java virtual machine with the library in it, driven by a test.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"

/// A null String as an argument.
inline constexpr const char* kNull = "\\null";

/// A virtual machine that runs HostShell under -Xcheck:jni and does what it is told; see HostShell.java for the
/// language. Results are the texts HostShell answers; an exception is "!class: message".
class JavaHost {
public:
    explicit JavaHost(const std::vector<std::string>& vsOptions = {});
    /// Ends the machine and fails the running test if it did not end well or complained about the library's use of it.
    ~JavaHost();
    JavaHost(const JavaHost&) = delete;
    JavaHost& operator=(const JavaHost&) = delete;

    /// One command; its result.
    std::string Do(const std::vector<std::string>& vsFields);

    /// A native method of a host object.
    template <typename... Arguments>
    std::string Call(const std::string& sHost, const std::string& sMethod, const Arguments&... arguments) {
        return Do({"call", sHost, sMethod, Text(arguments)...});
    }
    /// The same on a thread of its own; Join gives its result, or "running".
    template <typename... Arguments>
    void Start(const std::string& sThread, const std::string& sHost, const std::string& sMethod,
               const Arguments&... arguments) {
        EXPECT_EQ(Do({"start", sThread, sHost, sMethod, Text(arguments)...}), "ok");
    }
    std::string Join(const std::string& sThread, std::chrono::milliseconds limit = ChildProcess::kLimit);

    /// Makes a host object, and a controller with it; the handle. Fails the test if that throws.
    void New(const std::string& sHost) { EXPECT_EQ(Do({"new", sHost}), "ok"); }
    std::string Initial(const std::string& sHost, const std::string& sID, int iAccessMode, int iLogControl);
    /// A controller that serves a folder as "data", with a lasting callback on the thread "loop".
    std::string Serve(const std::string& sHost, const std::string& sFolder, int iLogControl = 1);
    /// Ends what Serve began.
    void StopServing(const std::string& sHost, const std::string& sHandle);

    /// What happened to the object since last asked, in order: "method(argument, ...)".
    std::vector<std::string> Events(const std::string& sHost);
    /// The same but for log lines.
    std::vector<std::string> Notifications(const std::string& sHost);
    /// Collects events until this one has come; false when the limit is over.
    bool WaitForEvent(const std::string& sHost, const std::string& sEvent);

    /// Global references of the machine, by its own count.
    int GlobalReferences();
    std::size_t Threads() const;
    std::size_t Descriptors() const;
    std::size_t ResidentKiB() const;

    ChildProcess& Process() { return *m_pProcess; }
    /// Ends the machine; everything it printed. The checks of the destructor are made.
    std::string Quit();
    /// Waits for a machine that ends by itself, with the status given, instead of Quit.
    std::string WaitForEnd(int iStatus);

private:
    static std::string Text(const std::string& sText) { return sText; }
    static std::string Text(const char* pcText) { return pcText; }
    static std::string Text(bool bValue) { return bValue ? "true" : "false"; }
    template <typename Number>
    requires std::is_arithmetic_v<Number>
    static std::string Text(Number value) { return std::to_string(value); }

    std::unique_ptr<ChildProcess> m_pProcess;
    int m_nCommands = 0;
};

/// The lines in which a virtual machine complains (-Xcheck:jni) about native code that is not its own.
std::vector<std::string> ComplaintsIn(const std::string& sOutput);

/// Skips aloud where there is no JDK, no network of our own, or a library that a virtual machine cannot load.
class JavaTest : public testing::Test {
protected:
    void SetUp() override;
};
