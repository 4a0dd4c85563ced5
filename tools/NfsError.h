// The failure that every part of nfsget reports.
#pragma once

#include <stdexcept>

/// An operation that failed, with its one-line reason.
class NfsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The user wants the program to end: what was under way is given up.
class Interrupted : public NfsError {
public:
    Interrupted() : NfsError("interrupted") {}
};
