// The native methods as a list, for tests that call every one of them.
#pragma once

#include <string>
#include <vector>

#include "JavaHost.h"

/// A method's name and arguments behind the handle, and what it answers without a controller.
struct Method {
    std::vector<std::string> vsCall;
    std::string sWithoutController;
};

/// All but `initial`.
const std::vector<Method>& MethodsWithHandle();

/// A method's call on a host object.
std::string CallOn(JavaHost& host, const std::string& sHost, const std::string& sHandle,
                   const std::vector<std::string>& vsCall);

/// Calls every method that neither waits, starts, stops nor ends anything with null, empty and very long texts and odd
/// numbers. Fails the test for any answer that is neither a value nor a java.io.IOException.
void CallWithBadArguments(JavaHost& host, const std::string& sHost, const std::string& sHandle);
