// A host that keeps what the library tells it.
#include "FakeHost.h"

#include "Callback.h"
#include "HostMethodNames.h"

namespace {

std::string Narrow(const HostArgument& argument) {
    std::string sText;
    for (const char16_t cUnit : argument.sText) {
        sText += static_cast<char>(cUnit);  // tests use ASCII
    }
    return sText;
}

void TakeAttributes(const std::vector<HostArgument>& v, Notification& told) {
    told.bSize = v[2].value.z != 0;
    told.iSize = static_cast<unsigned long long>(v[3].value.j);
    told.bAccessTime = v[4].value.z != 0;
    told.lAccessTimeSec = static_cast<unsigned long>(v[5].value.j);
    told.bLastModifiedTime = v[6].value.z != 0;
    told.lLastModifiedTimeSec = static_cast<unsigned long>(v[7].value.j);
}

void TakeRange(const std::vector<HostArgument>& v, Notification& told) {
    told.iSeek = static_cast<unsigned long long>(v[2].value.j);
    told.iSeekType = v[3].value.i;
    told.iLen = static_cast<unsigned int>(v[4].value.i);
}

}  // namespace

FakeHost::FakeHost() {
    const JavaFrame java(m_Jvm);
    m_pCallback = std::make_shared<CCallback>(java.Env(), m_Jvm.NewHost(MakeMethods()));
}

FakeHost::~FakeHost() {
    m_pCallback.reset();
}

HostMethods FakeHost::MakeMethods() {
    using Arguments = std::vector<HostArgument>;
    const auto line = [this](char cKind) {
        return [this, cKind](const Arguments& v) {
            m_Log.Add(LogLine{cKind, Narrow(v[0]), Narrow(v[1])});
            return HostAnswer{};
        };
    };
    // All begin with the ID and a path; the rest differs.
    const auto ask = [this](const char* pcOperation, void (*takeRest)(const Arguments&, Notification&)) {
        return [this, pcOperation, takeRest](const Arguments& v) {
            Notification notification;
            notification.sOperation = pcOperation;
            notification.sID = Narrow(v[0]);
            notification.sPath = Narrow(v[1]);
            takeRest(v, notification);
            return HostAnswer{.iValue = m_Log.Ask(notification)};
        };
    };
    return {
        {kHostLogInfo, line('i')},
        {kHostLogError, line('e')},
        {kHostLogRaw, line('r')},
        {kHostUpdate, ask("update", TakeAttributes)},
        {kHostRemove, ask("remove", [](const Arguments&, Notification&) {})},
        {kHostRename, ask("rename", [](const Arguments& v, Notification& told) { told.sPathTo = Narrow(v[2]); })},
        {kHostWrite, ask("write", TakeRange)},
    };
}
