// The native methods as a list.
#include "HostMethods.h"

#include <set>

#include <gtest/gtest.h>

namespace {

/// Which of a method's fields are Strings: those of the list that are no number and no flag.
bool IsText(const std::string& sField) {
    return sField != "true" && sField != "false" && sField.find_first_not_of("-0123456789") != std::string::npos;
}

}  // namespace

const std::vector<Method>& MethodsWithHandle() {
    static const std::vector<Method> vMethods = {
        {{"isServerRunning"}, "false"},
        {{"startRemoteController"}, "false"},
        {{"stopRemoteController"}, "void"},
        {{"startServer", "0", "0", "false"}, "false"},
        {{"stopServer"}, "void"},
        {{"receiveCallbackLoop", "-1"}, "false"},
        {{"addMountPoint", "/tmp", "data"}, "false"},
        {{"removeMountPoint", "/tmp"}, "void"},
        {{"addSession", "s", "/tmp"}, "void"},
        {{"removeSession", "s"}, "void"},
        {{"isSessionExists", "s"}, "false"},
        {{"isLocalSessionExists", "s"}, "false"},
        {{"openRedirectedFile", "/x", "1", "false", "0", "0"}, "void"},
        {{"closeRedirectedFile", "/x"}, "void"},
        {{"closeAllRedirectedFiles", "/x"}, "void"},
        {{"addRedirectedFileSegment", "/x", "/y", "0", "0", "1"}, "void"},
        {{"exportRedirectedFile", "/x", "/y"}, "void"},
        {{"exportRedirectedFileInfo", "/x", "/y", "true"}, "void"},
        {{"closeOpenedFile", "/x"}, "void"},
        {{"closeAllOpenedFiles", "/x"}, "void"},
        {{"setLogControl", "1"}, "void"},
        {{"getVersion"}, "Not Defined"},
        {{"getDescription"}, "Unknown"},
        {{"getAccessMode"}, "-1"},
        {{"getMountInfo", "false", "true"}, "0"},
        {{"getSessionInfo", "true"}, "0"},
        {{"runTestMode", "/tmp", "1"}, "void"},
        {{"getServerStatus"}, "0"},
        {{"addVSphereInfo", "m", "h", "p", "u", "w"}, "void"},
        {{"removeVSphereInfo", "m"}, "void"},
        {{"runQuickTestMode", "/tmp", "0"}, "false"},
        {{"addNetDeviceCredential", "p", "u", "w"}, "false"},
        {{"removeNetDeviceCredential", "p"}, "false"},
        {{"terminate"}, "void"},
    };
    return vMethods;
}

std::string CallOn(JavaHost& host, const std::string& sHost, const std::string& sHandle,
                   const std::vector<std::string>& vsCall) {
    std::vector<std::string> vsFields = {"call", sHost, vsCall[0], sHandle};
    vsFields.insert(vsFields.end(), vsCall.begin() + 1, vsCall.end());
    return host.Do(vsFields);
}

void CallWithBadArguments(JavaHost& host, const std::string& sHost, const std::string& sHandle) {
    const std::set<std::string> sLeftOut = {"receiveCallbackLoop", "terminate", "startServer", "stopServer"};
    for (const std::string& sText : {std::string(kNull), std::string(), std::string(10000, 'x')}) {
        for (const char* pcNumber : {"-1", "9"}) {
            for (const Method& method : MethodsWithHandle()) {
                if (sLeftOut.contains(method.vsCall[0])) {
                    continue;
                }
                std::vector<std::string> vsCall = method.vsCall;
                for (std::size_t i = 1; i < vsCall.size(); ++i) {
                    if (IsText(vsCall[i])) {
                        vsCall[i] = sText;
                    } else if (vsCall[i] != "true" && vsCall[i] != "false") {
                        vsCall[i] = pcNumber;
                    }
                }
                const std::string sResult = CallOn(host, sHost, sHandle, vsCall);
                EXPECT_TRUE(sResult.find('!') == std::string::npos || sResult.starts_with("!java.io.IOException: "))
                    << vsCall[0] << " with " << sText.substr(0, 10) << ": " << sResult;
            }
        }
    }
}
