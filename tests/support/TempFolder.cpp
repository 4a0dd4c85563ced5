// Scratch folders and whole-file helpers.
#include "TempFolder.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

TempFolder::TempFolder() {
    char vcTemplate[] = "/tmp/nfslib-test-XXXXXX";
    if (::mkdtemp(vcTemplate) == nullptr) {
        throw std::runtime_error("no scratch folder below /tmp");
    }
    m_sPath = std::filesystem::canonical(vcTemplate).string();
}

TempFolder::~TempFolder() {
    std::error_code ignored;  // a folder that cannot be removed goes with /tmp
    std::filesystem::remove_all(m_sPath, ignored);
}

void WriteWholeFile(const std::string& sPath, std::string_view sContent) {
    std::ofstream file(sPath, std::ios::binary | std::ios::trunc);
    file.write(sContent.data(), static_cast<std::streamsize>(sContent.size()));
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + sPath);
    }
}

std::string ReadWholeFile(const std::string& sPath) {
    std::ifstream file(sPath, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    if (!file) {
        throw std::runtime_error("cannot read " + sPath);
    }
    return content.str();
}
