// Changes inputs as hostile peers, bad networks and damaged disks do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What a mutator knows of the inputs it changes.
struct FuzzVocabulary {
    /// So many bytes at the start say how the rest is used: they are changed one by one, and never copied into others.
    std::size_t nHead = 0;
    /// What means something within such an input: names, keywords, encoded numbers.
    std::vector<std::string> vsWords;
};

/// From one number always the same way, on every machine.
class Mutator {
public:
    explicit Mutator(std::uint64_t iSeed);
    /// For the n-th input of a run: any of them can be made again without those before it.
    Mutator(std::uint64_t iSeed, std::uint64_t iInput) : Mutator(iSeed * 0x9E3779B97F4A7C15ULL + iInput) {}

    /// One of the corpus, which is not empty, with a few changes.
    std::string Mutate(const std::vector<std::string>& vsCorpus, const FuzzVocabulary& vocabulary);

private:
    std::size_t Below(std::size_t n);
    char AnyByte() { return static_cast<char>(Below(256)); }
    void Change(std::string& sInput, const std::vector<std::string>& vsCorpus, const FuzzVocabulary& vocabulary);
    void ChangeBytes(std::string& sInput);
    void ChangeLength(std::string& sInput);
    void PutWord(std::string& sInput, const FuzzVocabulary& vocabulary);
    void PutNumber(std::string& sInput, const FuzzVocabulary& vocabulary);
    void PutOther(std::string& sInput, const std::vector<std::string>& vsCorpus, const FuzzVocabulary& vocabulary);

    std::uint64_t m_iState;
};
