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
    const auto ask = [this](const Notification& notification) { return HostAnswer{.iValue = m_Log.Ask(notification)}; };
    HostMethods methods;
    methods[kHostLogInfo] = line('i');
    methods[kHostLogError] = line('e');
    methods[kHostLogRaw] = line('r');
    methods[kHostUpdate] = [ask](const Arguments& v) {
        Notification notification;
        notification.sOperation = "update";
        notification.sID = Narrow(v[0]);
        notification.sPath = Narrow(v[1]);
        notification.bSize = v[2].value.z != 0;
        notification.iSize = static_cast<unsigned long long>(v[3].value.j);
        notification.bAccessTime = v[4].value.z != 0;
        notification.lAccessTimeSec = static_cast<unsigned long>(v[5].value.j);
        notification.bLastModifiedTime = v[6].value.z != 0;
        notification.lLastModifiedTimeSec = static_cast<unsigned long>(v[7].value.j);
        return ask(notification);
    };
    methods[kHostRemove] = [ask](const Arguments& v) {
        Notification notification;
        notification.sOperation = "remove";
        notification.sID = Narrow(v[0]);
        notification.sPath = Narrow(v[1]);
        return ask(notification);
    };
    methods[kHostRename] = [ask](const Arguments& v) {
        Notification notification;
        notification.sOperation = "rename";
        notification.sID = Narrow(v[0]);
        notification.sPath = Narrow(v[1]);
        notification.sPathTo = Narrow(v[2]);
        return ask(notification);
    };
    methods[kHostWrite] = [ask](const Arguments& v) {
        Notification notification;
        notification.sOperation = "write";
        notification.sID = Narrow(v[0]);
        notification.sPath = Narrow(v[1]);
        notification.iSeek = static_cast<unsigned long long>(v[2].value.j);
        notification.iSeekType = v[3].value.i;
        notification.iLen = static_cast<unsigned int>(v[4].value.i);
        return ask(notification);
    };
    return methods;
}
