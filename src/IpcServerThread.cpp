// The thread of a CIpcServer.
#include "IpcServerThread.h"

#include <chrono>
#include <cstring>
#include <new>
#include <system_error>

#include "IpcServer.h"
#include "Reason.h"

namespace {

constexpr std::chrono::milliseconds kPauseWithoutMemory{10};

}  // namespace

CIpcServerThread::CIpcServerThread() = default;

CIpcServerThread::~CIpcServerThread() {
    Close();
}

bool CIpcServerThread::Open(const char* pcChannel, CNfsMain* pController, char* pcReason) {
    Close();
    m_pServer = std::make_unique<CIpcServer>(pController);
    if (!m_pServer->Open(pcChannel, pcReason)) {
        m_pServer.reset();
        return false;
    }
    m_bActive = true;
    try {
        m_hThread = std::thread(ThreadProc, this);
    } catch (const std::system_error& error) {
        WriteReason(pcReason, "Fail to create ipc server thread. %s", CSystemErrorText(error.code().value()).Get());
        m_bActive = false;
        m_pServer.reset();
        return false;
    }
    return true;
}

void CIpcServerThread::Close() {
    if (m_pServer) {
        m_pServer->Close();
    }
    if (m_hThread.joinable()) {
        m_hThread.join();
    }
    m_pServer.reset();
}

void CIpcServerThread::Run() {
    while (m_pServer->IsOpened()) {
        try {
            ServeNext();
        } catch (const std::bad_alloc&) {
            // The connection is closed, and its requester learns that there is no reply. The next one may fare better.
            std::this_thread::sleep_for(kPauseWithoutMemory);
        }
    }
    m_bActive = false;
}

void CIpcServerThread::ServeNext() {
    if (!m_pServer->ReadRequest() && m_pServer->IsAutoShutdownRequested()) {
        m_pServer->WaitForClose();  // nothing more is served; whoever owns this is about to close it
    }
}

void* CIpcServerThread::ThreadProc(void* pvThis) {
    static_cast<CIpcServerThread*>(pvThis)->Run();
    return nullptr;
}
