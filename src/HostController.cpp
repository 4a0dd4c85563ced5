// The handles of a host, and the end of a controller that may still be in use.
#include "HostController.h"

#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>

#include "Callback.h"
#include "NfsMain.h"

namespace {

/// What an x86-64 process's address has; a handle's bits above count the controllers that were there before.
constexpr int kAddressBits = 47;
/// As many as the count holds in a positive handle.
constexpr jlong kMaxBefore = (jlong{1} << (63 - kAddressBits)) - 1;

/// Every handle in use, and how many were given out for each address. Never destroyed: host threads may still call
/// while the process ends.
struct HandleTable {
    Mutex hMutex;
    std::map<jlong, std::shared_ptr<CHostController>> mControllers GUARDED_BY(hMutex);
    std::unordered_map<jlong, jlong> mGivenOut GUARDED_BY(hMutex);
};

HandleTable& Handles() {
    static auto* const pTable = new HandleTable;
    return *pTable;
}

}  // namespace

jlong CHostController::Register(std::unique_ptr<CNfsMain> pMain) {
    const auto iAddress = static_cast<jlong>(reinterpret_cast<std::intptr_t>(pMain.get()));
    auto pController = std::make_shared<CHostController>(std::move(pMain));
    HandleTable& table = Handles();
    const MutexLock lock(table.hMutex);
    const jlong nBefore = table.mGivenOut[iAddress]++;
    pController->m_bKeepAddress = nBefore == kMaxBefore;
    const jlong iHandle = nBefore << kAddressBits | iAddress;
    table.mControllers[iHandle] = std::move(pController);
    return iHandle;
}

std::shared_ptr<CHostController> CHostController::Find(jlong iHandle) {
    HandleTable& table = Handles();
    const MutexLock lock(table.hMutex);
    const auto it = table.mControllers.find(iHandle);
    return it != table.mControllers.end() ? it->second : nullptr;
}

std::shared_ptr<CHostController> CHostController::Release(jlong iHandle) {
    HandleTable& table = Handles();
    const MutexLock lock(table.hMutex);
    const auto node = table.mControllers.extract(iHandle);
    return node.empty() ? nullptr : node.mapped();
}

CHostController::CHostController(std::unique_ptr<CNfsMain> pMain) : m_pMain(std::move(pMain)) {}

CHostController::~CHostController() = default;

std::shared_ptr<CNfsMain> CHostController::Enter() {
    {
        const MutexLock lock(m_hMutexCalls);
        if (m_bEnded) {
            return nullptr;
        }
        ++m_nCalls;
    }
    return {m_pMain.get(), [pThis = shared_from_this()](CNfsMain*) { pThis->Leave(); }};
}

void CHostController::Leave() {
    const MutexLock lock(m_hMutexCalls);
    --m_nCalls;
    m_CallEnded.notify_all();
}

void CHostController::End() {
    m_pMain->Terminate();
    // From here on nobody enters; who is inside already is waited for.
    {
        const MutexLock lock(m_hMutexCalls);
        m_bEnded = true;
        while (m_nCalls > 0) {
            m_CallEnded.wait(m_hMutexCalls);
        }
    }
    if (m_bKeepAddress) {
        // Its memory is not given back: one small block in tens of thousands of controllers.
        std::destroy_at(m_pMain.release());
    } else {
        m_pMain.reset();
    }
}

void CHostController::InstallCallback(CNfsMain& main, const std::shared_ptr<CCallback>& pCallback) {
    const MutexLock lock(m_hMutexCallback);
    if (main.GetCallback() == nullptr) {
        main.SetCallback(pCallback);
    }
}

void CHostController::UninstallCallback(CNfsMain& main, const std::shared_ptr<CCallback>& pCallback) {
    const MutexLock lock(m_hMutexCallback);
    if (main.GetCallback() == pCallback) {
        main.SetCallback(nullptr);
    }
}
