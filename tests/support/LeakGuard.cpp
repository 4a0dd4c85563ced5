// Fails a test that leaves something behind.
#include "LeakGuard.h"

#include <chrono>
#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include "Isolation.h"

namespace {

/// A joined thread may show for a moment longer.
constexpr std::chrono::seconds kThreadLimit{10};
constexpr std::chrono::milliseconds kThreadPause{2};

std::set<std::string> ReadThreads() {
    std::set<std::string> threads;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        threads.insert(entry.path().filename().string());
    }
    return threads;
}

std::map<std::string, std::string> ReadDescriptors() {
    std::map<std::string, std::string> descriptors;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const std::string sTarget = std::filesystem::read_symlink(entry.path(), error).string();
        if (sTarget.find("/fd") == std::string::npos || sTarget.rfind("/proc/", 0) != 0) {  // not this listing's own
            descriptors[entry.path().filename().string()] = sTarget;
        }
    }
    return descriptors;
}

std::set<std::string> ReadFiles() {
    std::set<std::string> files;
    if (!IsIsolated()) {
        return files;  // /tmp belongs to others as well
    }
    for (const char* pcFolder : {"/tmp", "/run"}) {
        for (const auto& entry : std::filesystem::directory_iterator(pcFolder)) {
            files.insert(entry.path().string());
        }
    }
    return files;
}

}  // namespace

LeakGuard::LeakGuard() : m_Threads(ReadThreads()), m_Descriptors(ReadDescriptors()), m_Files(ReadFiles()) {}

LeakGuard::~LeakGuard() {
    Check();
}

void LeakGuard::Check() {
    const auto end = std::chrono::steady_clock::now() + kThreadLimit;
    std::set<std::string> threads = ReadThreads();
    while (threads.size() > m_Threads.size() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(kThreadPause);
        threads = ReadThreads();
    }
    EXPECT_LE(threads.size(), m_Threads.size()) << "threads left behind";

    std::map<std::string, std::string> descriptors = ReadDescriptors();
    for (const auto& [sNumber, sTarget] : descriptors) {
        const auto before = m_Descriptors.find(sNumber);
        if (before == m_Descriptors.end() || before->second != sTarget) {
            ADD_FAILURE() << "descriptor " << sNumber << " left open: " << sTarget;
        }
    }
    std::set<std::string> files = ReadFiles();
    for (const std::string& sFile : files) {
        if (m_Files.count(sFile) == 0) {
            ADD_FAILURE() << "file left behind: " << sFile;
        }
    }
    m_Threads = std::move(threads);
    m_Descriptors = std::move(descriptors);
    m_Files = std::move(files);
}
