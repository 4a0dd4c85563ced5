// File content that tells its own place: what a byte must be follows from a seed and the byte's offset alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/// Fills the memory with the content that a file of this seed has from an offset on. Each eight bytes are a scrambled
/// count, so a piece that is lost, doubled, moved or of another file never looks right.
void FillPattern(std::span<char> memory, std::uint64_t iSeed, std::uint64_t iOffset);

/// How many bytes of the memory are right, from its start.
std::size_t MatchPattern(std::span<const char> memory, std::uint64_t iSeed, std::uint64_t iOffset);
