// CChunkedArray: an array that grows without moving what it holds.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

/// Elements by number, in chunks of kChunkSize: growth copies nothing and needs no room for a second copy, so that no
/// caller waits for it, however many elements there are. An index splits into chunk and place by a shift.
///
/// Not thread-safe.
template <class T>
class CChunkedArray {
public:
    static constexpr std::size_t kChunkSize = 1024;

    // NOLINTBEGIN(readability-identifier-naming): named as in the standard's containers
    std::size_t size() const { return m_vvChunks.empty() ? 0 : (m_vvChunks.size() - 1) * kChunkSize + LastSize(); }
    bool empty() const { return m_vvChunks.empty(); }
    T& operator[](std::size_t i) { return m_vvChunks[i / kChunkSize][i % kChunkSize]; }
    const T& operator[](std::size_t i) const { return m_vvChunks[i / kChunkSize][i % kChunkSize]; }
    void push_back(T element) {
        if (empty() || LastSize() == kChunkSize) {
            std::vector<T> vChunk;
            vChunk.reserve(kChunkSize);
            m_vvChunks.push_back(std::move(vChunk));
        }
        m_vvChunks.back().push_back(std::move(element));
    }
    void clear() { m_vvChunks.clear(); }
    // NOLINTEND(readability-identifier-naming)

private:
    std::size_t LastSize() const { return m_vvChunks.back().size(); }

    std::vector<std::vector<T>> m_vvChunks;
};
