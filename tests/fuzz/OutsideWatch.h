// What lies beside an export, and must stay as it is.
#pragma once

#include <string>
#include <string_view>

#include "Descriptor.h"

/// A folder that holds a secret file and the exported folder "export", and is watched: whatever is opened, made,
/// changed or removed directly in it is noticed, also if it is undone at once. The content of its folders is not
/// watched. Made empty first, removed at the end.
class OutsideWatch {
public:
    explicit OutsideWatch(const std::string& sFolder);
    ~OutsideWatch();
    OutsideWatch(const OutsideWatch&) = delete;
    OutsideWatch& operator=(const OutsideWatch&) = delete;

    const std::string& GetOutside() const { return m_sOutside; }
    const std::string& GetExport() const { return m_sExport; }

    /// Empties the folder, but for what this object keeps there.
    void Clear();
    /// Empty if nothing was touched since this was last asked, else what.
    std::string Judge();
    /// Does a text hold a part of the secret file?
    static bool HoldsSecret(std::string_view sText);
    /// What the world itself does is not to be judged.
    void Forget() { WasTouched(); }

private:
    bool WasTouched();
    std::string Describe();

    std::string m_sOutside;
    std::string m_sExport;
    CDescriptor m_Watch;
};
