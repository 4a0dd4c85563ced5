// Where the sources and the build lie, for tests that run what was built.
#pragma once

#include <string>

std::string SourceTree();
std::string BuildTree();
