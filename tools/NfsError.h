// The failure that every part of nfsget reports.
#pragma once

#include <stdexcept>
#include <string>

/// An operation that failed, with its one-line reason.
class NfsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The user wants the program to end: what was under way is given up.
class Interrupted : public NfsError {
public:
    /// sMore tells what the interrupt may have left behind; it begins with its own separator.
    explicit Interrupted(const std::string& sMore = "") : NfsError("interrupted" + sMore) {}
};
