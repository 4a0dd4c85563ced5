// What one jni.h says, as texts that can be compared with what another one says.
#pragma once

#include <string>
#include <vector>

/// One line for every type, constant, record field and table slot up to version 1.4: name, size or value or offset, and
/// the type as the compiler mangles it. JniLayout.inc is compiled once against each header.
std::vector<std::string> DescribeOurHeader();
std::vector<std::string> DescribeJdkHeader();
