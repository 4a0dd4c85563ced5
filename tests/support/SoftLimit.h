// Limits of this process for the length of a test.
#pragma once

#include <vector>

#include <fcntl.h>
#include <sys/resource.h>

#include <gtest/gtest.h>

#include "Descriptor.h"

/// A soft limit (RLIMIT_NOFILE, RLIMIT_FSIZE, ...) that is restored at the end of the scope.
class SoftLimit {
public:
    explicit SoftLimit(__rlimit_resource_t iResource) : m_iResource(iResource) {
        EXPECT_EQ(::getrlimit(m_iResource, &m_Before), 0);
    }
    SoftLimit(__rlimit_resource_t iResource, rlim_t nLimit) : SoftLimit(iResource) { EXPECT_TRUE(Set(nLimit)); }
    ~SoftLimit() { EXPECT_EQ(::setrlimit(m_iResource, &m_Before), 0); }
    SoftLimit(const SoftLimit&) = delete;
    SoftLimit& operator=(const SoftLimit&) = delete;

    /// False above the hard limit.
    bool Set(rlim_t nLimit) const {
        const rlimit limit{nLimit, m_Before.rlim_max};
        return nLimit <= m_Before.rlim_max && ::setrlimit(m_iResource, &limit) == 0;
    }

private:
    __rlimit_resource_t m_iResource;
    rlimit m_Before{};
};

/// The limit of descriptors with which so many are free.
inline rlim_t GetLimitForFree(int nFree) {
    int iFile = 0;
    for (; nFree > 0; ++iFile) {
        nFree -= ::fcntl(iFile, F_GETFD) == -1 ? 1 : 0;
    }
    return static_cast<rlim_t>(iFile);
}

/// What a step answers that can open so many descriptors.
template <typename Step>
auto WithFreeDescriptors(int nFree, Step step) {
    const SoftLimit limit(RLIMIT_NOFILE, GetLimitForFree(nFree));
    return step();
}

/// What a step answers that can open none.
template <typename Step>
auto WithoutDescriptors(Step step) {
    return WithFreeDescriptors(0, step);
}

/// No descriptor is to be had, for the scope: all are in use up to the greatest that was, and there are no others.
/// Those that somebody closes can be had again.
class FullDescriptorTable {
public:
    FullDescriptorTable() : m_Limit(RLIMIT_NOFILE) {
        constexpr int kMostLookedAt = 4096;
        int iGreatest = 0;
        for (int i = 0; i < kMostLookedAt; ++i) {
            iGreatest = ::fcntl(i, F_GETFD) != -1 ? i : iGreatest;
        }
        EXPECT_TRUE(m_Limit.Set(static_cast<rlim_t>(iGreatest) + 1));
        for (int iTaken = 0; (iTaken = ::fcntl(0, F_DUPFD_CLOEXEC, 0)) != -1;) {
            m_vTaken.emplace_back(iTaken);
        }
    }

private:
    SoftLimit m_Limit;
    std::vector<CDescriptor> m_vTaken;
};
