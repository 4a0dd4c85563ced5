// Native methods: life of a controller, start and stop, the waiting loop.
#include "NfsJNI.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "Callback.h"
#include "ControllerFactory.h"
#include "HostCall.h"
#include "HostController.h"
#include "JniText.h"
#include "JniThread.h"
#include "Limits.h"
#include "Log.h"
#include "NfsMain.h"
#include "Reason.h"
#include "RuntimeParam.h"
#include "ServerIdentity.h"
#include "Utilities.h"

namespace {

/// The controller that a host asks for; a number that is no access mode means the internal server.
std::unique_ptr<CNfsMain> MakeController(const char* pcLogID, jint iAccessMode, jint iLogControl) {
    std::unique_ptr<CNfsMain> pMain = CreateController(iAccessMode, pcLogID, iLogControl);
    return pMain ? std::move(pMain) : CreateController(kAccessModeInternal, pcLogID, iLogControl);
}

/// Set while this thread starts or stops a server or a remote controller: a log line may call the host, and the host
/// call back.
thread_local bool t_bStartingOrStopping = false;

class StartOrStop {
public:
    StartOrStop() { t_bStartingOrStopping = true; }
    ~StartOrStop() { t_bStartingOrStopping = false; }
    StartOrStop(const StartOrStop&) = delete;
    StartOrStop& operator=(const StartOrStop&) = delete;
};

/// Starting and stopping exclude each other, and stopping waits for the server's threads. A host that asks for it from
/// inside a notification or a log line may be asking on the very thread that would be waited for.
bool WouldWaitForItself() {
    return t_bStartingOrStopping || CJniThread::IsLibraryThread();
}

/// Does work of that kind on a thread of its own, as soon as what is in its way has ended.
template <typename Work>
void RunAside(Work work) {
    std::thread(std::move(work)).detach();
}

/// Why a start failed that left no reason.
std::string GetStartFailure(CNfsMain& main) {
    if (main.GetAccessMode() == kAccessModeClient) {
        return "The external server gave no reason; its log tells it";
    }
    return main.GetStartFailure();
}

/// Waits for a controller's callers and threads, now or aside. The controller stays until it is done. Aside,
/// what the caller meant may have ended by then, and a later run be there, which is left alone.
void StopServerNowOrAside(CHostCall& call) {
    if (WouldWaitForItself()) {
        RunAside([pMain = call.Share(), iMoment = call.Main()->GetMoment()] { pMain->StopServerOf(iMoment); });
        return;
    }
    const StartOrStop guard;
    call.Main()->StopServer();
}

/// Starting and stopping a remote controller likewise; in internal mode there is none, and both do nothing.
bool WouldRemoteControllerWait(CNfsMain& main) {
    return WouldWaitForItself() && main.GetAccessMode() != kAccessModeInternal;
}

/// Set while this thread logs a refusal.
thread_local bool t_bRefusing = false;

/// Says in the log that a method that throws nothing did nothing: once, where the log method is what calls it.
void LogRefusal(CNfsMain& main, const char* pcMethod, const char* pcReason) {
    if (t_bRefusing) {
        return;
    }
    t_bRefusing = true;
    const LogArgu logArgu{pcMethod};
    const LogContext log{main.GetUtilities(), main.GetRuntimeParam(), &logArgu};
    NFS_LOG_ERROR(log, "[%s] %s", pcReason);
    t_bRefusing = false;
}

/// Installs a callback, on a visit of its own. False once the controller has ended.
bool InstallIfThere(CHostController& controller, const std::shared_ptr<CCallback>& pCallback) {
    const std::shared_ptr<CNfsMain> pMain = controller.Enter();
    if (pMain == nullptr) {
        return false;
    }
    controller.InstallCallback(*pMain, pCallback);
    return true;
}

}  // namespace

jlong NFSLIB_NATIVE(initial)(JNIEnv* pEnv, jobject jObj, jstring jLogID, jint iAccessMode, jint iLogControl) {
    try {
        const CJniText logID(pEnv, jLogID);
        std::unique_ptr<CNfsMain> pMain = MakeController(logID.Get(), iAccessMode, iLogControl);
        std::array<char, kReasonBufferSize> vcReason{};
        if (!pMain->Initial(vcReason.data())) {
            CCallback(pEnv, jObj).ThrowIOException(vcReason.data());
            return 0;
        }
        return CHostController::Register(std::move(pMain));
    } catch (const std::exception& error) {
        ThrowInternalError(pEnv, error);
        return 0;
    }
}

void NFSLIB_NATIVE(terminate)(JNIEnv* pEnv, jobject /*jObj*/, jlong iHandle) {
    try {
        const std::shared_ptr<CHostController> pController = CHostController::Release(iHandle);
        if (pController == nullptr) {
            return;
        }
        if (CHostCall::IsInsideCall() || CJniThread::IsLibraryThread()) {
            RunAside([pController] { pController->End(); });
        } else {
            pController->End();
        }
    } catch (const std::exception& error) {
        ThrowInternalError(pEnv, error);
    }
}

jboolean NFSLIB_NATIVE(isServerRunning)(JNIEnv* pEnv, jobject jObj, jlong iHandle) {
    return RunHostCall(pEnv, jObj, iHandle, jboolean{JNI_FALSE},
                       [](CHostCall&, CNfsMain& main) -> jboolean { return main.IsServerRunning(); });
}

jboolean NFSLIB_NATIVE(startRemoteController)(JNIEnv* pEnv, jobject jObj, jlong iHandle) {
    return RunHostCall(pEnv, jObj, iHandle, jboolean{JNI_FALSE}, [](CHostCall& call, CNfsMain& main) {
        if (WouldRemoteControllerWait(main)) {
            WriteReason(call.Reason(), "Remote controller cannot be started from inside a host callback");
            return call.OrThrow(false);
        }
        const StartOrStop guard;
        return call.OrThrow(main.StartRemoteController(call.Reason()));
    });
}

void NFSLIB_NATIVE(stopRemoteController)(JNIEnv* pEnv, jobject jObj, jlong iHandle) {
    RunHostCall(pEnv, jObj, iHandle, [](CHostCall&, CNfsMain& main) {
        if (WouldRemoteControllerWait(main)) {
            LogRefusal(main, "NfsJNI.StopRemoteController",
                       "Remote controller cannot be stopped from inside a host callback");
            return;
        }
        const StartOrStop guard;
        main.StopRemoteController();
    });
}

jboolean NFSLIB_NATIVE(startServer)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jint iMountPort, jint iNfsPort,
                                    jboolean bReadOnly) {
    return RunHostCall(pEnv, jObj, iHandle, jboolean{JNI_FALSE}, [&](CHostCall& call, CNfsMain& main) {
        if (WouldWaitForItself()) {
            // This process's own server; a client does not ask the other process from in here.
            WriteReason(call.Reason(), main.CNfsMain::IsServerRunning()
                                           ? "NFS already running"
                                           : "NFS cannot be started from inside a host callback");
            return call.OrThrow(false);
        }
        const StartOrStop guard;
        constexpr unsigned int kRoot = 0;  // a host names no user and group of its own
        const bool bStarted =
            main.StartServer(iMountPort, iNfsPort, kRoot, kRoot, bReadOnly != JNI_FALSE, call.Reason());
        if (!bStarted && call.Reason()[0] == '\0') {
            WriteReason(call.Reason(), "%s", GetStartFailure(main).c_str());
        }
        return call.OrThrow(bStarted);
    });
}

void NFSLIB_NATIVE(stopServer)(JNIEnv* pEnv, jobject jObj, jlong iHandle) {
    RunHostCall(pEnv, jObj, iHandle, [](CHostCall& call, CNfsMain&) { StopServerNowOrAside(call); });
}

jboolean NFSLIB_NATIVE(receiveCallbackLoop)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jint iLifeTimeInSec) {
    try {
        const std::shared_ptr<CHostController> pController = CHostController::Find(iHandle);
        if (pController == nullptr) {
            return JNI_FALSE;
        }
        const auto pCallback = std::make_shared<CCallback>(pEnv, jObj);
        // Between the turns the controller may be terminated; the loop then ends at its next turn. Another receiver
        // that was in the way at first and has gone since is replaced by this one.
        for (jint iRest = iLifeTimeInSec; iRest != 0 && InstallIfThere(*pController, pCallback);) {
            if (pCallback->IsInterrupted()) {
                break;
            }
            if (iRest > 0) {
                --iRest;
            }
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
        if (const std::shared_ptr<CNfsMain> pMain = pController->Enter()) {
            pController->UninstallCallback(*pMain, pCallback);
        }
    } catch (const std::exception& error) {
        ThrowInternalError(pEnv, error);
    }
    return JNI_FALSE;
}
