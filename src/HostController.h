// CHostController: a controller that a host holds by handle.
#pragma once

#include <condition_variable>
#include <memory>

#include "ThreadAnnotations.h"
#include "jni.h"

class CCallback;
class CNfsMain;

/// Owns a controller from `initial` to `terminate` and counts the native calls that are inside it, so that ending it
/// waits for them. A handle is the controller's address and, in the bits above it, how many controllers have been there
/// before: no number is given out twice. One that was never given out, or whose controller has been terminated, finds
/// nothing, which is how a host's late or mistaken call does no harm.
class CHostController : public std::enable_shared_from_this<CHostController> {
public:
    /// Takes a controller over and gives out its handle: positive, and never given out before.
    static jlong Register(std::unique_ptr<CNfsMain> pMain);
    /// Null for 0 and for a handle that is not (or no longer) in use.
    static std::shared_ptr<CHostController> Find(jlong iHandle);
    /// The same, and the handle is out of use from now on.
    static std::shared_ptr<CHostController> Release(jlong iHandle);

    explicit CHostController(std::unique_ptr<CNfsMain> pMain);
    ~CHostController();
    CHostController(const CHostController&) = delete;
    CHostController& operator=(const CHostController&) = delete;

    /// Enters a call: the controller stays as long as the share. Null once it has ended.
    std::shared_ptr<CNfsMain> Enter();

    /// Terminates the controller and deletes it when the last call inside it has ended. Must not be called from inside
    /// a call on it, nor from one of its own threads: deleting waits for both.
    void End();

    // For a call that is inside, with the controller as Enter gave it.

    /// Installs a callback unless one is installed already (look at the controller's to see which it is).
    void InstallCallback(CNfsMain& main, const std::shared_ptr<CCallback>& pCallback);
    /// Uninstalls this very callback; another that is installed by now stays.
    void UninstallCallback(CNfsMain& main, const std::shared_ptr<CCallback>& pCallback);

private:
    void Leave();

    Mutex m_hMutexCalls;
    std::condition_variable_any m_CallEnded;
    int m_nCalls GUARDED_BY(m_hMutexCalls) = 0;
    bool m_bEnded GUARDED_BY(m_hMutexCalls) = false;

    /// Makes looking for a callback and installing one a single step.
    Mutex m_hMutexCallback;

    std::unique_ptr<CNfsMain> m_pMain;  ///< changed by End alone, when no call is inside
    bool m_bKeepAddress = false;        ///< no other controller may come to be where this one was; set by Register
};
